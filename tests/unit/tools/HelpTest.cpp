#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "Command.h"

namespace kelgw {
namespace {

struct Answer {
  int code = -1;
  std::string results;
  std::string remarks;
};

std::string contentOf(std::FILE* file) {
  std::string content(static_cast<std::size_t>(std::ftell(file)), '\0');
  std::rewind(file);
  content.resize(std::fread(content.data(), 1, content.size(), file));
  std::fclose(file);
  return content;
}

Answer run(std::vector<const char*> arguments) {
  arguments.insert(arguments.begin(), "kelgw");
  std::FILE* const results = std::tmpfile();
  std::FILE* const remarks = std::tmpfile();
  const std::atomic<bool> stop{false};
  Answer answer;
  answer.code = runCommandLine(static_cast<int>(arguments.size()), arguments.data(), results, remarks, stop);
  std::fseek(results, 0, SEEK_END);
  std::fseek(remarks, 0, SEEK_END);
  answer.results = contentOf(results);
  answer.remarks = contentOf(remarks);
  return answer;
}

class EveryCommand : public testing::TestWithParam<std::vector<const char*>> {};

TEST_P(EveryCommand, TeachesWithExamplesAndNamesItsExitCodes) {
  std::vector<const char*> arguments = GetParam();
  arguments.push_back("--help");
  const Answer answer = run(arguments);
  EXPECT_EQ(answer.code, exitDone);
  EXPECT_NE(answer.results.find("Examples:"), std::string::npos) << answer.results;
  EXPECT_NE(
      answer.results.find(
          "Exit codes: 0 done, 1 it did not hold, 2 usage or bad input, 3 a server could not be reached."),
      std::string::npos)
      << answer.results;
  EXPECT_EQ(answer.remarks, "");
}

INSTANTIATE_TEST_SUITE_P(
    All, EveryCommand,
    testing::Values(std::vector<const char*>{}, std::vector<const char*>{"apply"},
                    std::vector<const char*>{"check"}, std::vector<const char*>{"dp", "ls"},
                    std::vector<const char*>{"dp", "get"}, std::vector<const char*>{"dp", "set"},
                    std::vector<const char*>{"dp", "watch"}, std::vector<const char*>{"kel", "ls"},
                    std::vector<const char*>{"kel", "sub"}, std::vector<const char*>{"kel", "pub"},
                    std::vector<const char*>{"status"}, std::vector<const char*>{"explain"}));

TEST(CommandLine, AnswersMisuseWithTwoAndSaysWhy) {
  for (const std::vector<const char*>& arguments : {std::vector<const char*>{},
                                                    {"fly"},
                                                    {"dp"},
                                                    {"dp", "get"},
                                                    {"dp", "get", "--nonsense", "A.b"},
                                                    {"dp", "watch", "A.b", "--count", "0"},
                                                    {"kel", "pub", "x", "a=int:1", "--hold", "-1"},
                                                    {"dp", "set", "A.b", "1", "--invalid", "--valid"}}) {
    const Answer answer = run(arguments);
    EXPECT_EQ(answer.code, exitBadInput);
    EXPECT_NE(answer.remarks, "");
    EXPECT_EQ(answer.results, "");
  }
}

TEST(CommandLine, NamesTheCommandThatDoesNotExist) {
  EXPECT_EQ(run({"fly"}).remarks,
            "kelgw: there is no command \"fly\" here; there are: apply check dp kel status explain\n");
  EXPECT_EQ(run({"--store", "x", "dp", "fly"}).remarks,
            "kelgw: there is no command \"fly\" here; there are: ls get set watch\n");
}

TEST(CommandLine, TakesANegativeNumberAsAValue) {
  // It gets as far as the store, which is not there.
  EXPECT_EQ(run({"--store", "redis+unix:///nowhere.sock", "dp", "set", "A.b", "-3"}).code, exitUnreachable);
  EXPECT_EQ(run({"--store", "redis+unix:///nowhere.sock", "dp", "set", "A.b", "-1.5e-3"}).code,
            exitUnreachable);
}

TEST(CommandLine, NamesTheExitCodesOnceInEachHelpText) {
  const std::string help = run({"kel", "--help"}).results;
  EXPECT_EQ(help.find("Exit codes:"), help.rfind("Exit codes:")) << help;
}

TEST(CommandLine, RefusesBadInputBeforeItLooksForAServer) {
  // Port 1 of this machine answers nobody: only a refusal that needs no server gives 2.
  EXPECT_EQ(run({"--kel", "mqtt://127.0.0.1:1", "kel", "pub", "x", "a=int:many"}).code, exitBadInput);
  EXPECT_EQ(run({"--kel", "mqtt://127.0.0.1:1", "kel", "pub", "x"}).code, exitBadInput);
  EXPECT_EQ(run({"--kel", "mqtt://127.0.0.1:1", "kel", "pub", "x", "a=int:1", "a=int:2"}).code, exitBadInput);
  EXPECT_EQ(run({"--kel", "carrier-pigeon:", "kel", "ls"}).code, exitBadInput);
  EXPECT_EQ(run({"--store", "redis+unix:///nowhere.sock", "dp", "set", "A.b"}).code, exitBadInput);
  EXPECT_EQ(run({"--store", "redis+unix:///nowhere.sock", "dp", "set", "A.b", "1", "--bits", "2"}).code,
            exitBadInput);
  EXPECT_EQ(run({"--store", "redis+unix:///nowhere.sock", "dp", "set", "A.b", "1", "--time", "soon"}).code,
            exitBadInput);
}

TEST(CommandLine, NamesTheServerThatItCannotReach) {
  const Answer store = run({"--store", "redis+unix:///nowhere.sock", "--limit", "0.2", "dp", "ls"});
  EXPECT_EQ(store.code, exitUnreachable);
  EXPECT_NE(store.remarks.find("/nowhere.sock"), std::string::npos) << store.remarks;
  const Answer broker = run({"--kel", "mqtt://127.0.0.1:1", "--limit", "0.3", "kel", "ls"});
  EXPECT_EQ(broker.code, exitUnreachable);
  EXPECT_NE(broker.remarks.find("mqtt://127.0.0.1:1"), std::string::npos) << broker.remarks;
}

TEST(CommandLine, AsksForAStoreWhenNoneIsNamed) {
  ::unsetenv("PVSS_STORE");
  const Answer answer = run({"dp", "ls"});
  EXPECT_EQ(answer.code, exitBadInput);
  EXPECT_NE(answer.remarks.find("PVSS_STORE"), std::string::npos);
}

}  // namespace
}  // namespace kelgw
