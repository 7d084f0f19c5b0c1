// What waits for the store, what goes for want of room, and that every write is counted.
#include <gtest/gtest.h>

#include <bit>
#include <map>
#include <random>

#include "core/Backlog.h"
#include "pvss/IntegerVar.h"
#include "pvss/TextVar.h"

namespace pvss {
namespace {

constexpr std::uint8_t all = attributeValue | attributeInvalid | attributeUserBit1 | attributeUserBit2;

ElementAttributes attributes(ElementId element, unsigned mask, int number) {
  ElementAttributes made;
  made.element = element;
  made.mask = static_cast<std::uint8_t>(mask);
  made.invalid = (number & 1) != 0;
  made.userBit1 = (number & 2) != 0;
  made.userBit2 = (number & 4) != 0;
  if ((mask & attributeValue) != 0) {
    made.value = std::make_shared<const IntegerVar>(number);
  }
  return made;
}

class BacklogTest : public ::testing::Test {
 protected:
  void makeBacklog(std::size_t bytes) { backlog = std::make_unique<Backlog>(bytes, counters); }

  std::uint64_t append(std::vector<ElementAttributes> elements, std::int64_t timeMs = 0) {
    PreparedWrite write;
    write.batch.timeMs = timeMs;
    for (const ElementAttributes& element : elements) {
      counters.queued += static_cast<std::uint64_t>(std::popcount(element.mask));
    }
    write.batch.elements = std::move(elements);
    const std::uint64_t gone = backlog->append(std::move(write));
    checkBalance();
    return gone;
  }

  void checkBalance() {
    ASSERT_EQ(counters.queued, counters.confirmed + counters.coalesced + counters.dropped +
                                   counters.rejected + counters.pending);
  }

  // Takes everything that can be handed over.
  std::vector<WriteBatch> handAll() {
    std::vector<WriteBatch> batches;
    while (const WriteBatch* batch = backlog->next()) {
      batches.push_back(*batch);
      backlog->handedOver(backlog->handed());
    }
    return batches;
  }

  Counters counters;
  std::unique_ptr<Backlog> backlog;
};

TEST_F(BacklogTest, KeepsOrderAndNumbersFromOne) {
  makeBacklog(1 << 20);
  append({attributes(1, all, 1)});
  append({attributes(2, all, 2)});
  const auto batches = handAll();
  ASSERT_EQ(batches.size(), 2U);
  EXPECT_EQ(batches[0].clientSequence, 1U);
  EXPECT_EQ(batches[1].clientSequence, 2U);
  EXPECT_EQ(counters.pending, 8U);
  backlog->confirm(1, WriteOutcome::applied);
  checkBalance();
  EXPECT_EQ(counters.confirmed, 4U);
  backlog->confirm(2, WriteOutcome::refused);
  checkBalance();
  EXPECT_EQ(counters.rejected, 4U);
  EXPECT_TRUE(backlog->empty());
  EXPECT_EQ(counters.backlogBytes, 0U);
}

TEST_F(BacklogTest, AnEmptyCallIsNothing) {
  makeBacklog(1 << 20);
  append({});
  EXPECT_TRUE(backlog->empty());
}

TEST_F(BacklogTest, WhatTheStoreDidNotKnowIsResentInOrderWithItsNumbers) {
  makeBacklog(1 << 20);
  for (int number = 1; number <= 5; ++number) {
    append({attributes(1, all, number)});
  }
  handAll();
  backlog->confirm(1, WriteOutcome::applied);
  backlog->linkLost();
  backlog->settle(3);
  checkBalance();
  EXPECT_EQ(counters.confirmed, 12U);
  const auto batches = handAll();
  ASSERT_EQ(batches.size(), 2U);
  EXPECT_EQ(batches[0].clientSequence, 4U);
  EXPECT_EQ(batches[1].clientSequence, 5U);
  EXPECT_EQ(counters.resent, 8U);
}

TEST_F(BacklogTest, PastTheBoundTheOldestSupersededGoFirst) {
  makeBacklog(16384);
  int number = 0;
  while (counters.coalesced == 0) {
    append({attributes(1 + static_cast<ElementId>(number % 4), all, number)});
    ++number;
    ASSERT_LT(number, 10000);
  }
  EXPECT_LE(counters.backlogBytes, 16U * 1024);
  const auto batches = handAll();
  ASSERT_LT(batches.size(), static_cast<std::size_t>(number));
  // What is left is the newest end, without a hole.
  const int firstLeft = number - static_cast<int>(batches.size());
  for (std::size_t index = 0; index < batches.size(); ++index) {
    EXPECT_EQ(static_cast<const IntegerVar&>(*batches[index].elements.at(0).value).getValue(),
              firstLeft + static_cast<int>(index));
  }
}

TEST_F(BacklogTest, WhatNothingSupersedesStaysWhateverTheBound) {
  makeBacklog(1024);
  for (ElementId element = 1; element <= 200; ++element) {
    EXPECT_EQ(append({attributes(element, all, 1)}), 0U);
  }
  EXPECT_EQ(handAll().size(), 200U);
  EXPECT_GT(counters.backlogBytes, 1024U);
}

TEST_F(BacklogTest, ValueBitsAndFlagWrittenTogetherGoOnlyTogether) {
  makeBacklog(4096);
  append({attributes(1, all, 3)});
  // Newer flags and bits alone do not supersede the value that came with older ones.
  for (int number = 0; number < 200; ++number) {
    append({attributes(1, attributeInvalid | attributeUserBit1 | attributeUserBit2, number)});
  }
  const auto batches = handAll();
  ASSERT_FALSE(batches.empty());
  EXPECT_EQ(batches.front().elements.at(0).mask, all);
  EXPECT_EQ(batches.front().clientSequence, 1U);
  EXPECT_GT(counters.coalesced, 0U);
}

TEST_F(BacklogTest, NoCallIsGivenUpInPart) {
  // What was written in one call is seen together or not at all, wherever in it the room is enough again.
  for (const std::size_t bound : {8000U, 8100U, 8200U, 8300U}) {
    makeBacklog(bound);
    counters = {};
    for (int number = 0; number < 400; ++number) {
      append({attributes(1, all, number), attributes(2, all, number), attributes(3, all, number)});
    }
    EXPECT_GT(counters.coalesced, 0U);
    for (const WriteBatch& batch : handAll()) {
      EXPECT_EQ(batch.elements.size(), 3U) << "call " << batch.clientSequence << ", bound " << bound;
    }
  }
}

TEST_F(BacklogTest, WhatTheStoreHasInHandStays) {
  makeBacklog(2048);
  append({attributes(1, all, 1)});
  append({attributes(1, all, 2)});
  handAll();
  for (int number = 0; number < 100; ++number) {
    append({attributes(1, all, number)});
  }
  backlog->confirm(1, WriteOutcome::applied);
  backlog->confirm(2, WriteOutcome::applied);
  checkBalance();
  EXPECT_EQ(counters.confirmed, 8U);
}

TEST_F(BacklogTest, WhatTheStoreMayHaveStaysUntilItIsKnown) {
  makeBacklog(4096);
  for (int number = 1; number <= 5; ++number) {
    append({attributes(1, all, number)});
  }
  handAll();
  backlog->linkLost();
  for (int number = 6; number <= 200; ++number) {
    append({attributes(1, all, number)});
  }
  EXPECT_GT(counters.coalesced, 0U);
  backlog->settle(5);
  checkBalance();
  EXPECT_EQ(counters.confirmed, 20U) << "all five had been applied, and are counted as such";
  EXPECT_EQ(counters.settled, 20U);
}

TEST_F(BacklogTest, SettledCountsWhatTheStoreCounts) {
  makeBacklog(1 << 20);
  PreparedWrite write;
  counters.queued += 1;
  write.batch.elements = {attributes(1, attributeValue | attributeInvalid, 1)};
  write.impliedFlag = {true};
  backlog->append(std::move(write));
  append({attributes(2, all, 2)});
  handAll();
  backlog->confirm(1, WriteOutcome::applied);
  EXPECT_EQ(counters.confirmed, 1U);
  EXPECT_EQ(counters.settled, 2U) << "the flag that the value clears is written too";
  backlog->confirm(2, WriteOutcome::refused);
  checkBalance();
  EXPECT_EQ(counters.settled, 6U);
  backlog->restoreLost(0);
  handAll();
  backlog->confirm(4, WriteOutcome::applied);
  EXPECT_EQ(counters.settled, 6U) << "what is written again is settled already";
}

TEST_F(BacklogTest, AnElementLeavesItsCallAndTheOthersStay) {
  makeBacklog(8192);
  append({attributes(1, all, 1), attributes(2, all, 1)});
  for (int number = 0; number < 200; ++number) {
    append({attributes(1, all, number)});
  }
  const auto batches = handAll();
  ASSERT_EQ(batches.front().clientSequence, 1U);
  ASSERT_EQ(batches.front().elements.size(), 1U);
  EXPECT_EQ(batches.front().elements[0].element, 2U);
}

TEST_F(BacklogTest, DroppingEverythingIsCounted) {
  makeBacklog(1 << 20);
  append({attributes(1, all, 1)});
  append({attributes(2, attributeInvalid, 1)});
  EXPECT_EQ(backlog->dropAll(), 5U);
  checkBalance();
  EXPECT_EQ(counters.dropped, 5U);
  EXPECT_EQ(backlog->next(), nullptr);
}

TEST_F(BacklogTest, AStoreThatForgotGetsTheNewestOfEachAttributeBeforeTheRest) {
  makeBacklog(1 << 20);
  append({attributes(3, all, 5)}, 50);                                 // 1, which the store still knows
  append({attributes(1, all, 7), attributes(2, all, 6)}, 100);         // 2
  append({attributes(1, attributeInvalid, 0)}, 200);                   // 3
  append({attributes(2, attributeValue | attributeInvalid, 8)}, 300);  // 4
  append({attributes(1, attributeUserBit1, 0)}, 400);                  // 5, never confirmed
  handAll();
  backlog->confirm(4, WriteOutcome::applied);
  backlog->linkLost();
  backlog->settle(1);
  EXPECT_EQ(backlog->restoreLost(1), 7U);
  checkBalance();
  const auto batches = handAll();
  ASSERT_EQ(batches.size(), 4U);
  // Of the second call: value and second bit of one element, both bits of the other; with their old time.
  EXPECT_TRUE(batches[0].restore);
  EXPECT_EQ(batches[0].timeMs, 100);
  ASSERT_EQ(batches[0].elements.size(), 2U);
  EXPECT_EQ(batches[0].elements[0].mask, attributeValue | attributeUserBit2);
  EXPECT_EQ(batches[0].elements[1].mask, attributeUserBit1 | attributeUserBit2);
  EXPECT_TRUE(batches[0].elements[0].userBit2);
  EXPECT_EQ(batches[1].timeMs, 200);
  EXPECT_EQ(batches[1].elements.at(0).mask, attributeInvalid);
  EXPECT_EQ(batches[2].timeMs, 300);
  EXPECT_EQ(batches[2].elements.at(0).mask, attributeValue | attributeInvalid);
  EXPECT_FALSE(batches[3].restore);
  EXPECT_EQ(batches[3].timeMs, 400);
  for (std::size_t index = 0; index + 1 < batches.size(); ++index) {
    EXPECT_LT(batches[index].clientSequence, batches[index + 1].clientSequence);
  }
  EXPECT_GT(batches[0].clientSequence, 5U);
  // Once more, before any of it was confirmed: the same again, not twice.
  backlog->linkLost();
  backlog->settle(1);
  EXPECT_EQ(backlog->restoreLost(1), 7U);
  EXPECT_EQ(handAll().size(), 4U);
  backlog->confirm(~0ULL, WriteOutcome::applied);
  checkBalance();
  EXPECT_EQ(counters.pending, 0U);
  EXPECT_EQ(counters.backlogBytes, 0U);
}

// A plain store beside the backlog: whatever happens on the way, the end is what was written last.
TEST_F(BacklogTest, RandomTroubleEndsInTheNewestValuesAndABalancedLedger) {
  std::mt19937 random(20240601);
  for (int round = 0; round < 60; ++round) {
    counters = Counters();
    makeBacklog(3000 + random() % 20000);
    constexpr ElementId elements = 6;
    using State = std::map<std::pair<ElementId, int>, int>;  // by element and attribute bit
    State wanted;
    struct Server {
      State state;
      std::uint64_t last = 0;
    } server, past;
    int counter = 0;
    const auto apply = [&](const WriteBatch& batch) {
      if (batch.clientSequence <= server.last) {
        return;
      }
      server.last = batch.clientSequence;
      for (const ElementAttributes& element : batch.elements) {
        for (int bit : {1, 2, 4, 8}) {
          if ((element.mask & bit) != 0) {
            server.state[{element.element, bit}] =
                bit == 1   ? static_cast<const IntegerVar&>(*element.value).getValue()
                : bit == 2 ? static_cast<int>(element.invalid)
                : bit == 4 ? static_cast<int>(element.userBit1)
                           : static_cast<int>(element.userBit2);
          }
        }
      }
    };
    std::deque<WriteBatch> flying;
    const auto answer = [&](bool tell) {
      if (flying.empty()) {
        return;
      }
      apply(flying.front());
      if (tell) {
        backlog->confirm(flying.front().clientSequence, WriteOutcome::applied);
      }
      flying.pop_front();
    };
    const auto reconnect = [&](bool forgets) {
      flying.clear();
      const std::uint64_t confirmed = backlog->lastConfirmed();
      if (forgets) {
        server = past;
      }
      past = server;
      backlog->linkLost();
      backlog->settle(server.last);
      if (forgets || server.last < confirmed) {
        backlog->restoreLost(server.last);
      }
    };
    for (int step = 0; step < 400; ++step) {
      switch (random() % 12) {
        case 0:
          reconnect(false);
          break;
        case 1:
          if (random() % 8 == 0) {
            reconnect(true);
          } else if (random() % 4 == 0) {
            past = server;
          }
          break;
        case 2:
        case 3:
          if (const WriteBatch* batch = backlog->next()) {
            flying.push_back(*batch);
            backlog->handedOver(backlog->handed());
          }
          break;
        case 4:
          answer(true);
          break;
        default: {
          std::vector<ElementAttributes> write;
          for (ElementId element = 1; element <= elements; ++element) {
            if (random() % 3 == 0) {
              write.push_back(attributes(element, static_cast<unsigned>(1 + random() % 15), ++counter));
              for (int bit : {1, 2, 4, 8}) {
                if ((write.back().mask & bit) != 0) {
                  wanted[{element, bit}] = bit == 1   ? counter
                                           : bit == 2 ? counter & 1
                                           : bit == 4 ? (counter & 2) / 2
                                                      : (counter & 4) / 4;
                }
              }
            }
          }
          append(std::move(write));
          break;
        }
      }
      checkBalance();
    }
    // A last connection that lives: everything goes through.
    flying.clear();
    backlog->linkLost();
    backlog->settle(server.last);
    for (const WriteBatch& batch : handAll()) {
      flying.push_back(batch);
    }
    while (!flying.empty()) {
      answer(true);
    }
    checkBalance();
    EXPECT_EQ(counters.pending, 0U);
    EXPECT_EQ(counters.backlogBytes, 0U);
    EXPECT_EQ(server.state, wanted) << "round " << round;
  }
}

}  // namespace
}  // namespace pvss
