// A link that fails in the middle of a write, after the system has taken a part of it: what counts as handed
// over, what is sent again, and what the store has in the end.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>

#include <atomic>
#include <cerrno>
#include <string_view>

#include "RedisProbe.h"
#include "pvss/BitVar.h"
#include "pvss/Counters.h"
#include "pvss/Manager.h"
#include "pvss/Settings.h"
#include "pvss/TextVar.h"
#include "pvss/TimeVar.h"

namespace {

/// So many bytes are taken yet; then the connection has timed out, once. Nothing below 0.
std::atomic<long> bytesBeforeCut{-1};

/// The answer to the next write is lost with its connection: first while it is still to be asked for, then
/// while it is on its way.
std::atomic<bool> answerToLose{false};
std::atomic<bool> answerLosing{false};

}  // namespace

// What this process says to a socket and hears of one goes through here.
extern "C" ssize_t recv(int socket, void* into, size_t room, int flags) {
  if (!answerLosing.exchange(false)) return ::recvfrom(socket, into, room, flags, nullptr, nullptr);
  pollfd answered{socket, POLLIN, 0};
  ::poll(&answered, 1, 20'000);  // the server has done what it was told
  ::shutdown(socket, SHUT_RDWR);
  return 0;
}
extern "C" ssize_t send(int socket, const void* bytes, size_t size, int flags) {
  const std::string_view said(static_cast<const char*>(bytes), size);
  if (answerToLose && said.find("dp_set") != std::string_view::npos) {
    answerToLose = false;
    answerLosing = true;
  }
  const long left = bytesBeforeCut;
  if (left < 0) return ::sendto(socket, bytes, size, flags, nullptr, 0);
  if (left == 0) {
    bytesBeforeCut = -1;
    ::shutdown(socket, SHUT_RDWR);
    errno = ETIMEDOUT;
    return -1;
  }
  const ssize_t sent = ::sendto(socket, bytes, std::min(size, static_cast<size_t>(left)), flags, nullptr, 0);
  if (sent > 0) bytesBeforeCut = left - sent;
  return sent;
}

namespace {

using storetest::name;
using storetest::prepare;
using storetest::RedisServer;
using storetest::valueInStore;

class CutWrite : public testing::Test {
 protected:
  CutWrite() : kept_(pvss::Settings::current()) {
    prepare(server, DPELEMENT_TEXT);
    pvss::Settings::current().store = server.address();
    manager = std::make_unique<Manager>(ManagerIdentifier(0, API_MAN, 7));
    manager->connectToData(3, nullptr, 0);
    EXPECT_TRUE(until([] { return Manager::managerState == Manager::STATE_RUNNING; }));
  }
  ~CutWrite() override {
    manager.reset();
    pvss::Settings::current() = kept_;
  }
  static bool until(const std::function<bool()>& condition) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!condition()) {
      if (std::chrono::steady_clock::now() >= end) return false;
      long sec = 0;
      long usec = 2000;
      Manager::dispatch(sec, usec);
    }
    return true;
  }
  /// `bits`: the user bits too.
  static void set(const std::string& text, bool bits) {
    const auto id = [](const char* attribute) {
      DpIdentifier found;
      EXPECT_TRUE(Manager::getId((std::string(name) + ":_original.." + attribute).c_str(), found));
      return found;
    };
    DpIdValueList list;
    list.append(id("_value"), TextVar(text.c_str()));
    if (bits) {
      list.append(id("_userbit1"), BitVar(true));
      list.append(id("_userbit2"), BitVar(true));
    }
    Manager::dpSetTimed(TimeVar(PVSSTime::fromMilliseconds(1)), list, Manager::eventId, nullptr, 1);
  }
  static pvss::Counters counters() { return Manager::getCounters(); }

  RedisServer server;
  std::unique_ptr<Manager> manager;

 private:
  const pvss::Settings kept_;
};

TEST_F(CutWrite, IsCountedForItselfAndSentAgainWhole) {
  const std::string large(300'000, 'x');
  set("small", false);
  EXPECT_EQ(counters().handed, 1U);
  bytesBeforeCut = 100'000;
  set(large, true);
  EXPECT_EQ(bytesBeforeCut, -1) << "the link has failed inside the call";
  EXPECT_EQ(counters().handed, 4U);
  EXPECT_EQ(counters().resent, 0U) << "nothing has gone out twice yet";
  EXPECT_EQ(counters().storeLosses, 1U);
  set("last", false);
  EXPECT_EQ(counters().handed, 4U) << "there is no link";
  EXPECT_EQ(counters().pending, 5U);

  EXPECT_TRUE(until([] { return counters().confirmed == 5; }));
  EXPECT_EQ(counters().pending, 0U);
  // What was whole had reached the server, and it said so before anything was sent again.
  EXPECT_EQ(counters().resent, counters().handed - 5);
  EXPECT_EQ(counters().resent, 3U);
  EXPECT_EQ(valueInStore(server), "last");
  EXPECT_EQ(server.cli({"HVALS", "dp:cli"}).substr(0, 4), "3 3 ") << "three calls, each applied once";
}

TEST(CutAnswer, IsNoErrorOfAToolWhoseWriteWasApplied) {
  const RedisServer server;
  prepare(server);
  pvss::StoreAdmin tool(server.address());
  pvss::StoreWrite write;
  write.name = name;
  write.value = std::make_shared<FloatVar>(7);
  answerToLose = true;
  const std::uint64_t sequence = tool.write({write});
  EXPECT_FALSE(answerToLose || answerLosing) << "the answer was lost";
  EXPECT_EQ(std::to_string(sequence), server.cli({"GET", "dp:seq"}));
  EXPECT_EQ(valueInStore(server), "7");
  EXPECT_EQ(server.cli({"HVALS", "dp:cli"}).substr(0, 4), "1 1 ") << "sent twice, applied once";
}

}  // namespace
