// The list of waiting groups against simple models, over random schedules.
#include <algorithm>
#include <map>
#include <optional>
#include <random>

#include "DelayList.h"

namespace gateway_test {
namespace {

constexpr std::size_t groupCount = 12;
constexpr int schedules = 10'000;
constexpr short signalled = 0;
constexpr short timedOut = -1;

/// The list as a table of the time that each group has left, without relative delays.
class LeftTimes {
 public:
  struct Added {
    bool queued = false;
    bool first = false;
    bool assertionFires = false;
  };

  Added add(std::size_t group, std::uint64_t delay, std::int64_t now) {
    if (!waiting_.empty()) {
      const auto left = static_cast<std::int64_t>(waiting_.front().left) - (now - mark_);
      const std::uint64_t firstLeft = left < 0 ? 0 : static_cast<std::uint64_t>(left);
      const std::uint64_t passed = waiting_.front().left - firstLeft;  // may count backwards
      for (Entry& entry : waiting_) {
        entry.left -= passed;
      }
    }
    mark_ = now;
    if (std::any_of(waiting_.begin(), waiting_.end(), [&](const Entry& e) { return e.group == group; })) {
      return {};
    }
    const auto later =
        std::find_if(waiting_.begin(), waiting_.end(), [&](const Entry& e) { return e.left > delay; });
    Added added{true, later == waiting_.begin(), false};
    // The one that comes after the new entry keeps this much behind it; a signed count cannot hold more.
    added.assertionFires = later != waiting_.end() && static_cast<std::int64_t>(later->left - delay) < 0;
    waiting_.insert(later, {group, delay});
    return added;
  }
  std::int64_t beginTurn(std::int64_t now) {
    if (waiting_.empty()) {
      return 1000;
    }
    mark_ = now;
    return static_cast<std::int64_t>(waiting_.front().left);
  }
  std::optional<std::size_t> timeOut(std::int64_t now) {
    if (waiting_.empty()) {
      return std::nullopt;
    }
    const Entry first = waiting_.front();
    waiting_.erase(waiting_.begin());
    for (Entry& entry : waiting_) {
      entry.left -= first.left;
    }
    mark_ = now;
    return first.group;
  }
  [[nodiscard]] bool empty() const { return waiting_.empty(); }

 private:
  struct Entry {
    std::size_t group;
    std::uint64_t left;
  };
  std::vector<Entry> waiting_;
  std::int64_t mark_ = 0;
};

class DelayListModel : public Gateway {
 protected:
  void SetUp() override {
    start();
    groups.emplace(groupCount);
  }
  void TearDown() override { groups.reset(); }
  std::vector<std::size_t> published() {
    std::vector<std::size_t> result;
    for (const auto& sent : kel.takeSent()) {
      result.push_back(std::stoul(sent.publication));
    }
    return result;
  }

  DrivenClock clock;
  std::optional<BareGroups> groups;
};

/// Zero, small values that often meet, buffer times of every size, and now and then a negative one.
std::uint64_t randomDelay(std::mt19937& random) {
  switch (random() % 10) {
    case 0:
      return 0;
    case 1:
    case 2:
    case 3:
      return 10 * (random() % 10);
    case 9:
      return random() % 20 == 0 ? 4'294'967'295U - random() % 1000 : random() % 100'000;
    default:
      return random() % 1000;
  }
}

TEST_F(DelayListModel, withASteadyClockEveryGroupIsPublishedExactlyWhenItIsDue) {
  std::mt19937 random(7);
  for (int schedule = 0; schedule < schedules; ++schedule) {
    PublicationUpdateThread thread;
    struct Due {
      std::int64_t at;
      int order;
    };
    std::map<std::size_t, Due> expected;
    int order = 0;
    auto turn = thread.beginTurn();
    std::int64_t deadline = clock.now() + turn.waitMs;
    const std::size_t actions = 5 + random() % 30;
    for (std::size_t action = 0; action < actions || !expected.empty(); ++action) {
      const bool idle = expected.empty();
      if (action < actions && (idle || random() % 2 == 0)) {
        // Something is added while the thread waits.
        if (!idle && deadline > clock.now()) {
          const std::int64_t room = deadline - clock.now();
          clock.advance(static_cast<std::int64_t>(random() % static_cast<std::uint64_t>(room)));
        } else if (idle) {
          clock.advance(static_cast<std::int64_t>(random() % 5000));
        }
        const std::size_t group = random() % groupCount;
        const std::uint64_t delay = randomDelay(random);
        const bool queued = thread.addGroup((*groups)[group], delay);
        EXPECT_EQ(queued, !expected.contains(group));
        if (queued) {
          const std::int64_t at = clock.now() + static_cast<std::int64_t>(delay);
          const bool first = std::all_of(expected.begin(), expected.end(),
                                         [at](const auto& other) { return at < other.second.at; });
          expected[group] = {at, order++};
          if (first) {  // the thread is woken and begins anew at once
            thread.endTurn(turn, signalled);
            turn = thread.beginTurn();
            deadline = clock.now() + turn.waitMs;
            EXPECT_EQ(deadline, at);
          }
        }
      } else if (!idle) {
        clock.set(deadline);
        thread.endTurn(turn, timedOut);
        const auto next =
            std::min_element(expected.begin(), expected.end(), [](const auto& left, const auto& right) {
              return std::pair(left.second.at, left.second.order) <
                     std::pair(right.second.at, right.second.order);
            });
        ASSERT_EQ(published(), std::vector<std::size_t>{next->first}) << "schedule " << schedule;
        ASSERT_EQ(clock.now(), next->second.at) << "schedule " << schedule;
        expected.erase(next);
        turn = thread.beginTurn();
        deadline = clock.now() + turn.waitMs;
      }
    }
    EXPECT_TRUE(published().empty());
  }
}

TEST_F(DelayListModel, withAClockThatStepsTheListAgreesWithTheTimesLeft) {
  constexpr std::int64_t hour = 3'600'000;
  std::mt19937 random(11);
  std::size_t publishes = 0;
  for (int schedule = 0; schedule < schedules; ++schedule) {
    PublicationUpdateThread thread;
    LeftTimes model;
    std::optional<PublicationUpdateThread::Turn> turn;
    std::int64_t deadline = 0;
    bool pending = false;
    const std::size_t actions = 10 + random() % 40;
    for (std::size_t action = 0; action < actions; ++action) {
      switch (random() % 8) {
        case 0:
        case 1:
        case 2: {
          const std::size_t group = random() % groupCount;
          const std::uint64_t delay = randomDelay(random);
          const auto added = model.add(group, delay, clock.now());
          ASSERT_FALSE(added.assertionFires);  // and none does below, or the process would end
          ASSERT_EQ(thread.addGroup((*groups)[group], delay), added.queued) << "schedule " << schedule;
          pending = pending || added.first;
          break;
        }
        case 3:
          clock.advance(static_cast<std::int64_t>(random() % 300));
          break;
        case 4:
          if (random() % 4 == 0) {
            const std::int64_t step = static_cast<std::int64_t>(1 + random() % 5) * hour;
            clock.advance(random() % 2 == 0 ? step : -step);
          }
          break;
        case 5:
          if (turn && deadline > clock.now()) {
            clock.set(deadline);
          }
          break;
        default:
          if (!turn) {
            turn = thread.beginTurn();
            ASSERT_EQ(turn->waitMs, model.beginTurn(clock.now())) << "schedule " << schedule;
            ASSERT_EQ(turn->entryInHand, !model.empty());
            deadline = clock.now() + turn->waitMs;
          } else if (pending) {
            thread.endTurn(*turn, signalled);
            ASSERT_TRUE(published().empty());
            pending = false;
            turn.reset();
          } else if (clock.now() >= deadline) {
            const bool inHand = turn->entryInHand;
            thread.endTurn(*turn, timedOut);
            std::vector<std::size_t> expected;
            if (inHand) {
              if (const auto due = model.timeOut(clock.now())) {
                expected.push_back(*due);
              }
            }
            publishes += expected.size();
            ASSERT_EQ(published(), expected) << "schedule " << schedule;
            turn.reset();
          }
      }
    }
  }
  EXPECT_GT(publishes, static_cast<std::size_t>(schedules));  // the schedules were not idle
}

using DelayListModelDeathTest = DelayListModel;

TEST_F(DelayListModelDeathTest, assertionFiresWhereTheModelSaysSo) {
  testing::GTEST_FLAG(death_test_style) = "threadsafe";
  std::mt19937 random(3);
  for (int fired = 0; fired < 5;) {
    PublicationUpdateThread thread;
    LeftTimes model;
    for (int step = 0; step < 20; ++step) {
      const std::size_t group = random() % groupCount;
      const std::uint64_t huge = random() % 4 == 0 ? std::uint64_t{1} << 63 : 0;
      const std::uint64_t delay = huge + random() % 1000;
      clock.advance(static_cast<std::int64_t>(random() % 5));
      if (model.add(group, delay, clock.now()).assertionFires) {
        EXPECT_DEATH(thread.addGroup((*groups)[group], delay),
                     "kelPubGroup:157: .*Assertion `newDelay >= 0' failed");
        ++fired;
        break;
      }
      thread.addGroup((*groups)[group], delay);
    }
  }
}

}  // namespace
}  // namespace gateway_test
