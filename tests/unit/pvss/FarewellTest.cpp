// The last words of a store: said whole, or not at all.
#include "store/Farewell.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <string>

#include "pvss/Manager.h"

namespace pvss {
namespace {

class FarewellTest : public ::testing::Test {
 protected:
  FarewellTest() { EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair_.data()), 0); }
  ~FarewellTest() override {
    farewell::withdraw();
    ::close(pair_[0]);
    ::close(pair_[1]);
  }
  [[nodiscard]] int socket() const { return pair_[0]; }
  /// What has arrived at the other side.
  [[nodiscard]] std::string heard() const {
    std::array<char, 64> piece{};
    const ssize_t got = ::recv(pair_[1], piece.data(), piece.size(), MSG_DONTWAIT);
    return got > 0 ? std::string(piece.data(), static_cast<std::size_t>(got)) : "";
  }

 private:
  std::array<int, 2> pair_{-1, -1};
};
using FarewellDeathTest = FarewellTest;

// What is said is said once in a life of the process, so each of these ends one.

TEST_F(FarewellDeathTest, IsSaidAtTheEndOfTheProcess) {
  ASSERT_TRUE(farewell::offer(socket(), "bye"));
  EXPECT_EXIT(Manager::exit(3), ::testing::ExitedWithCode(3), "");
  EXPECT_EQ(heard(), "bye");
}

TEST_F(FarewellDeathTest, IsSaidFromASignalHandlerToo) {
  ASSERT_TRUE(farewell::offer(socket(), "bye"));
  EXPECT_EXIT(
      {
        std::signal(SIGTERM, [](int) { Manager::exit(0); });
        std::raise(SIGTERM);
      },
      ::testing::ExitedWithCode(0), "");
  EXPECT_EQ(heard(), "bye");
}

TEST_F(FarewellDeathTest, IsNotSaidWhileSomethingIsBeingSent) {
  ASSERT_TRUE(farewell::offer(socket(), "bye"));
  ASSERT_TRUE(farewell::begin());
  EXPECT_EXIT(Manager::exit(0), ::testing::ExitedWithCode(0), "");
  EXPECT_EQ(heard(), "");
}

TEST_F(FarewellDeathTest, IsNotSaidBehindSomethingHalfSentAndIsBehindTheRestOfIt) {
  ASSERT_TRUE(farewell::offer(socket(), "bye"));
  ASSERT_TRUE(farewell::begin());
  farewell::end(false);
  EXPECT_EXIT(Manager::exit(0), ::testing::ExitedWithCode(0), "");
  EXPECT_EQ(heard(), "");
  ASSERT_TRUE(farewell::begin());
  farewell::end(true);
  EXPECT_EXIT(Manager::exit(0), ::testing::ExitedWithCode(0), "");
  EXPECT_EQ(heard(), "bye");
}

TEST_F(FarewellDeathTest, NothingFollowsIt) {
  ASSERT_TRUE(farewell::offer(socket(), "bye"));
  EXPECT_EXIT(
      {
        farewell::say();
        Manager::exit(farewell::begin() ? 1 : 7);
      },
      ::testing::ExitedWithCode(7), "");
  EXPECT_EQ(heard(), "bye");
}

TEST_F(FarewellDeathTest, IsNotSaidOnceItIsWithdrawn) {
  ASSERT_TRUE(farewell::offer(socket(), "bye"));
  farewell::withdraw();
  EXPECT_EXIT(Manager::exit(0), ::testing::ExitedWithCode(0), "");
  EXPECT_EQ(heard(), "");
}

TEST_F(FarewellTest, OneAtATimeAndNoLongerThanThereIsRoom) {
  ASSERT_TRUE(farewell::offer(socket(), "bye"));
  EXPECT_FALSE(farewell::offer(socket(), "other"));
  farewell::withdraw();
  EXPECT_FALSE(farewell::offer(socket(), std::string(5000, 'x')));
}

}  // namespace
}  // namespace pvss
