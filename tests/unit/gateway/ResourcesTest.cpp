// The configuration section, the version text, and the program's help switches.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pvss/Resources.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include "KelApiResources.h"

namespace {

/// What stands there when main begins, before any test has touched it.
class Defaults final : public ::testing::Environment {
 public:
  void SetUp() override {
    clientSourceName = KelApiResources::clientSourceName;
    pubSourceName = KelApiResources::pubSourceName;
    publisherName = KelApiResources::publisherName;
  }
  CharString clientSourceName{"not looked at"};
  CharString pubSourceName{"not looked at"};
  CharString publisherName{"not looked at"};
};

/// GoogleTest's from the first moment on.
auto* const defaults = static_cast<Defaults*>(testing::AddGlobalTestEnvironment(new Defaults));

class Configuration : public ::testing::Test {
 protected:
  Configuration() {
    std::string pattern = (std::filesystem::temp_directory_path() / "kelgw-config-XXXXXX").string();
    folder_ = mkdtemp(pattern.data());
    reset();
  }
  ~Configuration() override {
    reset();
    std::filesystem::remove_all(folder_);
  }
  static void reset() {
    KelApiResources::clientSourceName = defaults->clientSourceName;
    KelApiResources::pubSourceName = defaults->pubSourceName;
    KelApiResources::publisherName = defaults->publisherName;
  }
  [[nodiscard]] std::string file(const std::string& text) const {
    std::string path = (folder_ / "config").string();
    std::ofstream(path) << text;
    return path;
  }
  /// Reads command line and file as the program does.
  void read(const std::string& text) const { initWith(file("[general]\nstore = \"memory:\"\n" + text)); }
  static void initWith(std::string path) {
    std::string program = "kel-gateway";
    std::string option = "-config";
    std::array<char*, 4> argv{program.data(), option.data(), path.data(), nullptr};
    int argc = 3;
    KelApiResources::init(argc, argv.data());
  }

  static constexpr const char* defaultPublisher = "PVSSApiManager_PublisherNameMissing";
  std::filesystem::path folder_;
};

TEST_F(Configuration, defaultsStandBeforeAnythingIsRead) {
  EXPECT_EQ(defaults->clientSourceName, "");
  EXPECT_EQ(defaults->pubSourceName, "");
  EXPECT_EQ(defaults->publisherName, "PVSSApiManager_PublisherNameMissing");
}

TEST_F(Configuration, missingSectionLeavesTheDefaults) {
  read("");
  EXPECT_EQ(KelApiResources::clientSourceName, "");
  EXPECT_EQ(KelApiResources::pubSourceName, "");
  EXPECT_EQ(KelApiResources::publisherName, defaultPublisher);
}

TEST_F(Configuration, sectionIsRead) {
  read("[kel]\nclientDPList = \"Gw.clients\"\npubDPList = \"Gw.pubs\"\npublisherName = \"plant 1\"\n");
  EXPECT_EQ(KelApiResources::clientSourceName, "Gw.clients");
  EXPECT_EQ(KelApiResources::pubSourceName, "Gw.pubs");
  EXPECT_EQ(KelApiResources::publisherName, "plant 1");
}

TEST_F(Configuration, keysMayBeWrittenInAnyMixOfCases) {
  read("[kel]\nCLIENTDPLIST = \"a\"\npubdplist = \"b\"\nPublisherNAME = \"c\"\n");
  EXPECT_EQ(KelApiResources::clientSourceName, "a");
  EXPECT_EQ(KelApiResources::pubSourceName, "b");
  EXPECT_EQ(KelApiResources::publisherName, "c");
}

TEST_F(Configuration, missingPublisherNameLeavesItsDefault) {
  read("[kel]\nclientDPList = \"a\"\n");
  EXPECT_EQ(KelApiResources::publisherName, defaultPublisher);
}

TEST_F(Configuration, unknownKeysAreSkippedAndTheLastValueOfAKeyCounts) {
  read("[kel]\nclientDPList = \"a\"\nsomethingElse = \"x\"\nclientDPList = \"b\"\n");
  EXPECT_EQ(KelApiResources::clientSourceName, "b");
}

TEST_F(Configuration, otherSectionsAreLeftToThePlatform) {
  read("[other]\nclientDPList = \"no\"\n[kel]\nclientDPList = \"yes\"\n[more]\npubDPList = \"no\"\n");
  EXPECT_EQ(KelApiResources::clientSourceName, "yes");
  EXPECT_EQ(KelApiResources::pubSourceName, "");
}

TEST_F(Configuration, sectionMayComeTwiceAndBeforeTheGeneralOne) {
  read("[kel]\nclientDPList = \"a\"\n[general]\n[kel]\npubDPList = \"b\"\n");
  EXPECT_EQ(KelApiResources::clientSourceName, "a");
  EXPECT_EQ(KelApiResources::pubSourceName, "b");
}

TEST_F(Configuration, sectionMayBeGivenInTwoPartsAndBeginWithAnyKey) {
  read("[kel]\npublisherName = \"first\"\nclientDPList = \"a\"\n[kel]\npubDPList = \"b\"\n");
  EXPECT_EQ(KelApiResources::publisherName, "first");
  EXPECT_EQ(KelApiResources::clientSourceName, "a");
  EXPECT_EQ(KelApiResources::pubSourceName, "b");
}

using ConfigurationDeathTest = Configuration;

TEST_F(ConfigurationDeathTest, whatThePlatformCannotUseEndsTheReading) {
  testing::GTEST_FLAG(death_test_style) = "threadsafe";
  unsetenv("PVSS_STORE");
  const std::string path = file("[general]\nstore = \"nowhere\"\n");
  EXPECT_EXIT(initWith(path), testing::ExitedWithCode(2), "nowhere");
}

TEST(Version, textIsRegisteredWithTwoBlanks) {
  EXPECT_THAT(
      Resources::addVersionInfo.str(),
      testing::MatchesRegex("3\\.0  linked at [A-Z][a-z][a-z] [ 0-9][0-9] [0-9]+ [0-9]+:[0-9]+:[0-9]+"));
}

/// Runs the program; gives its output and exit code.
std::pair<std::string, int> program(const std::string& arguments) {
  const std::string command = std::string(KEL_GATEWAY_PROGRAM) + " " + arguments + " 2>&1";
  FILE* const pipe = popen(command.c_str(), "r");
  std::string output;
  std::array<char, 4096> part{};
  for (std::size_t count = 0; (count = std::fread(part.data(), 1, part.size(), pipe)) > 0;) {
    output.append(part.data(), count);
  }
  const int status = pclose(pipe);
  return {output, WIFEXITED(status) ? WEXITSTATUS(status) : -1};
}

using Program = Configuration;

TEST_F(Program, debugHelpWinsOverHelp) {
  const std::string config = " -config " + file("[general]\nstore = \"memory:\"\n");
  const auto help = program("-help" + config);
  const auto debugHelp = program("-helpdbg" + config);
  EXPECT_EQ(help.second, 0);
  EXPECT_EQ(debugHelp.second, 0);
  EXPECT_NE(help.first, "");
  EXPECT_NE(debugHelp.first, "");
  EXPECT_NE(help.first, debugHelp.first);
  EXPECT_EQ(program("-help -helpdbg" + config), debugHelp);
  EXPECT_EQ(program("-helpdbg -help" + config), debugHelp);
}

}  // namespace
