// Configuration file and command line.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "config/ConfigFile.h"
#include "pvss/Resources.h"
#include "pvss/Settings.h"

namespace pvss {
namespace {

std::string errorOf(std::string_view text) {
  const ConfigFile file = ConfigFile::parse(text);
  return file.errorLine == 0 ? "" : std::to_string(file.errorLine) + ": " + file.error;
}

TEST(ConfigFile, SectionsAndEntriesAreReadInOrder) {
  const ConfigFile file = ConfigFile::parse(
      "# comment \"with an open quote\n"
      "\r\n"
      "[ general ]\r\n"
      "  store = \"memory:a # b.yaml\" # comment\n"
      "[kel]\n"
      "clientDPList=KelGateway.clients\n"
      "a = b = c\n"
      "empty =\n"
      "[kel]");
  EXPECT_EQ(file.errorLine, 0);
  ASSERT_EQ(file.sections.size(), 3U);
  EXPECT_EQ(file.sections[0].name, "general");
  ASSERT_EQ(file.sections[0].entries.size(), 1U);
  EXPECT_EQ(file.sections[0].entries[0].key, "store");
  EXPECT_EQ(file.sections[0].entries[0].value, "\"memory:a # b.yaml\"");
  EXPECT_EQ(file.sections[0].entries[0].line, 4);
  ASSERT_EQ(file.sections[1].entries.size(), 3U);
  EXPECT_EQ(file.sections[1].entries[1].value, "b = c");
  EXPECT_EQ(file.sections[1].entries[2].value, "");
  EXPECT_TRUE(file.sections[2].entries.empty());
}

TEST(ConfigFile, TheFirstWrongLineIsNamed) {
  EXPECT_EQ(errorOf("[kel]\n\nclientDPList \"x\"\nalso wrong"), "3: no '=' in 'clientDPList \"x\"'");
  EXPECT_EQ(errorOf("[kel]\nclientDPList = \"x"), "2: a quote that never closes");
  EXPECT_EQ(errorOf("[kel\n"), "1: a section must be written [name]");
  EXPECT_EQ(errorOf("[]\n"), "1: a section must be written [name]");
  EXPECT_EQ(errorOf("store = x\n"), "1: an entry before the first [section]");
  EXPECT_EQ(errorOf("[kel]\n= x\n"), "2: no key before '='");
  EXPECT_EQ(errorOf(std::string_view("[kel]\na\0b = x\n", 14)), "2: a NUL character");
  EXPECT_EQ(errorOf(""), "");
}

class ResourcesTest : public ::testing::Test {
 protected:
  ResourcesTest() {
    std::string pattern = (std::filesystem::temp_directory_path() / "pvss-config-XXXXXX").string();
    folder = ::mkdtemp(pattern.data());
    ::unsetenv("PVSS_STORE");
  }
  ~ResourcesTest() override {
    std::filesystem::remove_all(folder);
    Settings::current() = Settings();
  }

  std::string file(const std::string& text) const {
    std::ofstream(folder + "/config") << text;
    return folder + "/config";
  }

  // Begins with these words behind the program's name.
  static void begin(std::vector<std::string> words) {
    words.insert(words.begin(), "manager");
    std::vector<char*> pointers;
    pointers.reserve(words.size() + 1);
    for (std::string& word : words) {
      pointers.push_back(word.data());
    }
    pointers.push_back(nullptr);
    int argc = static_cast<int>(words.size());
    Resources::begin(argc, pointers.data());
    EXPECT_EQ(argc, 1);
  }

  // Reads everything as a manager with a section "kel" does.
  static std::string readAll() {
    std::string seen;
    const auto own = [&] {
      if (!Resources::isSection("kel")) {
        return false;
      }
      Resources::getNextEntry();
      while (Resources::cfgState > Resources::CFG_SECT_START) {
        CharString value;
        Resources::cfgStream >> value;
        seen += Resources::keyWord.str() + "=" + value.str() + ";";
        Resources::getNextEntry();
      }
      seen += "|";
      return Resources::cfgState != Resources::CFG_EOF;
    };
    while (own() || Resources::generalSection()) {
    }
    return seen;
  }

  static void endReading() {
    int argc = 1;
    Resources::end(argc, nullptr);
  }

  std::string folder;
};

TEST_F(ResourcesTest, OwnSectionGeneralSectionAndStrangersAreReadInAnyOrder) {
  begin({"-config", file("[other]\nx = 1\n[KEL]\na = \"1 2\"\n[general]\nSTORE = \"memory:\"\n[kel]\nb = 3\n"
                         "[last]\ny = 2\n")});
  EXPECT_EQ(readAll(), "a=1 2;|b=3;|");
  EXPECT_EQ(Settings::current().store, "memory:");
  endReading();
}

TEST_F(ResourcesTest, ReadingEndsBehindAnOwnSectionThatIsLast) {
  begin({"-config", file("[kel]\na = 1")});
  EXPECT_EQ(Resources::cfgState, Resources::CFG_SECT_START);
  EXPECT_EQ(readAll(), "a=1;|");
  EXPECT_EQ(Resources::cfgState, Resources::CFG_EOF);
}

TEST_F(ResourcesTest, AFileWithoutSectionsIsEmpty) {
  begin({"-config", file("# nothing\n")});
  EXPECT_EQ(Resources::cfgState, Resources::CFG_EOF);
  EXPECT_FALSE(Resources::isSection("kel"));
  EXPECT_FALSE(Resources::generalSection());
}

TEST_F(ResourcesTest, SwitchesAreRead) {
  begin({"-num", "12", "-config", file("")});
  EXPECT_EQ(Resources::ownManId.manNum, 12);
  EXPECT_EQ(Resources::ownManId.manType, API_MAN);
  EXPECT_FALSE(Resources::helpFlag);
  begin({"-help", "-helpdbg"});
  EXPECT_TRUE(Resources::helpFlag);
  EXPECT_TRUE(Resources::helpDbgFlag);
  EXPECT_EQ(Resources::ownManId.manNum, 1);
  EXPECT_EQ(Resources::cfgState, Resources::CFG_EOF);
}

TEST_F(ResourcesTest, TheVariableWinsOverTheFile) {
  begin({"-config", file("[general]\nstore = memory:file\n")});
  readAll();
  EXPECT_EQ(Settings::current().storeAddress(), "memory:file");
  ::setenv("PVSS_STORE", "memory:", 1);
  EXPECT_EQ(Settings::current().storeAddress(), "memory:");
  ::unsetenv("PVSS_STORE");
}

TEST_F(ResourcesTest, GeneralEntriesAreTakenAndUnknownOnesPassedOver) {
  begin({"-config",
         file("[general]\nbacklogBytes = 1000\ninvalidAfter = 0\nsystem = \"Plant\"\nlanguage = \"en\"\n")});
  readAll();
  EXPECT_EQ(Settings::current().backlogBytes, 1000U);
  EXPECT_EQ(Settings::current().invalidAfterSeconds, 0U);
  EXPECT_EQ(Settings::current().system, "Plant");
}

using ResourcesDeathTest = ResourcesTest;

TEST_F(ResourcesDeathTest, WhatIsWrongIsOneMessageAndExitCodeTwo) {
  const auto exits = ::testing::ExitedWithCode(2);
  EXPECT_EXIT(begin({"-what"}), exits, "^manager: unknown switch '-what', see manager -help\n$");
  EXPECT_EXIT(begin({"-num"}), exits, "^manager: -num needs a value\n$");
  EXPECT_EXIT(begin({"-num", "0"}), exits, "^manager: -num takes a manager number from 1 to 255, not '0'\n$");
  EXPECT_EXIT(begin({"-num", "7x"}), exits, "not '7x'\n$");
  EXPECT_EXIT(begin({"-config", folder + "/none"}), exits, "/none: No such file or directory\n$");
  EXPECT_EXIT(begin({"-config", folder}), exits, ": Is a directory\n$");
  EXPECT_EXIT(begin({"-config", file("[kel]\nx\n")}), exits, "/config:2: no '=' in 'x'\n$");
  EXPECT_EXIT(begin({"-config", file("[kel]\nx = \"\n")}), exits, "/config:2: a quote that never closes\n$");
  EXPECT_EXIT((begin({"-config", file("[general]\nbacklogBytes = -1\n")}), readAll()), exits,
              "/config:2: backlogBytes takes a number of bytes above 0, not '-1'\n$");
  EXPECT_EXIT((begin({"-config", file("[general]\ninvalidAfter = soon\n")}), readAll()), exits,
              "/config:2: invalidAfter takes a number of seconds, 0 for never, not 'soon'\n$");
  EXPECT_EXIT((begin({"-config", file("[general]\nsystem = a:b\n")}), readAll()), exits,
              "/config:2: system takes");
}

TEST_F(ResourcesDeathTest, AManagerWithoutStoreIsOneMessageAndExitCodeTwo) {
  const auto exits = ::testing::ExitedWithCode(2);
  EXPECT_EXIT((begin({"-config", file("")}), readAll(), endReading()), exits, "^no store: set PVSS_STORE, ");
  EXPECT_EXIT((begin({"-config", file("[general]\nstore = \"memory:" + folder + "/none.yaml\"\n")}),
               readAll(), endReading()),
              exits, "/none.yaml: No such file or directory\n$");
  EXPECT_EXIT((begin({"-config", file("[general]\nstore = \"ftp://x\"\n")}), readAll(), endReading()), exits,
              "ftp");
}

TEST_F(ResourcesDeathTest, WithoutAFileTheVariableIsEnough) {
  ASSERT_EQ(::chdir(folder.c_str()), 0);
  EXPECT_EXIT(begin({}), ::testing::ExitedWithCode(2),
              "^config/config: No such file or directory; name another");
  ::setenv("PVSS_STORE", "memory:", 1);
  begin({});
  EXPECT_EQ(Resources::cfgState, Resources::CFG_EOF);
  endReading();
  ::unsetenv("PVSS_STORE");
  ASSERT_EQ(::chdir("/"), 0);
}

TEST_F(ResourcesTest, HelpNamesEverySwitch) {
  ::testing::internal::CaptureStdout();
  Resources::printHelp();
  const std::string help = ::testing::internal::GetCapturedStdout();
  for (const char* word :
       {"-config", "-num", "-help", "-helpdbg", "config/config", "PVSS_STORE", "backlogBytes"}) {
    EXPECT_NE(help.find(word), std::string::npos) << word;
  }
  ::testing::internal::CaptureStdout();
  Resources::printHelpDbg();
  EXPECT_NE(::testing::internal::GetCapturedStdout().find("KELGW_LOG"), std::string::npos);
}

// Stored while static objects are built, as a program registers its version.
struct Registers {
  Registers() {
    Resources::addVersionInfo.setCharStr("3.0  linked at some time", static_cast<unsigned int>(-1));
  }
};
const Registers registers;

TEST_F(ResourcesTest, VersionTextFromStaticInitialisationStays) {
  begin({"-config", file("")});
  EXPECT_STREQ(Resources::addVersionInfo, "3.0  linked at some time");
}

}  // namespace
}  // namespace pvss
