#include "Mailbox.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>

namespace kelgw {
namespace {

using namespace std::chrono_literals;

TEST(Mailbox, HandsEventsOverInOrder) {
  Mailbox<int> mailbox;
  mailbox.put(1);
  mailbox.put(2);
  EXPECT_EQ(mailbox.take(0ms), 1);
  EXPECT_EQ(mailbox.take(0ms), 2);
  EXPECT_EQ(mailbox.take(0ms), std::nullopt);
}

TEST(Mailbox, MakesTheSenderWaitWhileItIsFullAndLosesNothing) {
  Mailbox<std::size_t> mailbox;
  constexpr std::size_t count = 3 * Mailbox<std::size_t>::bound;
  std::thread sender([&mailbox] {
    for (std::size_t index = 0; index < count; ++index) {
      mailbox.put(index);
    }
  });
  for (std::size_t index = 0; index < count; ++index) {
    ASSERT_EQ(mailbox.take(1min), index);
  }
  sender.join();
}

TEST(Mailbox, LetsAWaitingSenderGoWhenItCloses) {
  Mailbox<std::string> mailbox;
  for (std::size_t index = 0; index < Mailbox<std::string>::bound; ++index) {
    mailbox.put("full");
  }
  std::thread sender([&mailbox] { mailbox.put("too late"); });
  mailbox.close();
  sender.join();
  for (std::size_t index = 0; index < Mailbox<std::string>::bound; ++index) {
    EXPECT_EQ(mailbox.take(0ms), "full");
  }
  EXPECT_EQ(mailbox.take(0ms), std::nullopt);
}

}  // namespace
}  // namespace kelgw
