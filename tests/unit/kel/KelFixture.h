// KelFixture: a broker of its own for each test, on a clock that the test moves, and factories that meet
// there.
//
// Nothing here sleeps: a test waits for what it expects to be called back, with a limit that only a hang
// reaches.
#pragma once

#include <gtest/gtest.h>
#include <kel/Kel.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "transport/loopback/LoopbackBroker.h"

namespace kel::testing {

using Journal = std::vector<std::string>;

/// Writes down every callback in words.
class JournalBase {
 public:
  static constexpr std::chrono::seconds limit{30};

  bool waitFor(const std::function<bool(const Journal&)>& holds) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, limit, [&] { return holds(journal_); });
  }
  /// Waits until so many lines are there and gives all.
  Journal lines(std::size_t count) {
    waitFor([&](const Journal& journal) { return journal.size() >= count; });
    return all();
  }
  Journal all() {
    const std::lock_guard lock(mutex_);
    return journal_;
  }
  void clear() {
    const std::lock_guard lock(mutex_);
    journal_.clear();
  }

 protected:
  void note(const std::string& line) {
    // Told under the lock: who waits may end this object as soon as it has what it waited for.
    const std::lock_guard lock(mutex_);
    journal_.push_back(line);
    changed_.notify_all();
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  Journal journal_;
};

/// "record 5" is a record whose unnamed value is the int 5, good and in order.
class Listener : public KelSubscriptionListener, public JournalBase {
 public:
  /// Runs inside the callback, after it was written down.
  std::function<void(KelSubscription*, KelData&)> onMessage;

  void handleMessage(KelSubscription* subscription, KelData& data) override {
    std::string line = "record";
    if (data.getValueType(nullptr) == 4) line += " " + std::to_string(data.extractInt(nullptr));
    if (data.getQuality() != 1) line += " q" + std::to_string(data.getQuality());
    if (*data.getReason() != '\0') line += " (" + std::string(data.getReason()) + ")";
    if (onMessage) onMessage(subscription, data);
    note(line);
  }
  void disconnected(KelSubscription* /*subscription*/, char* reason) override {
    note("disconnected: " + std::string(reason));
  }
  void connected(KelSubscription* /*subscription*/) override { note("connected"); }
  void handleException(KelSubscription* /*subscription*/, KelException& exception) override {
    note("exception: " + std::string(exception.what()));
  }
};

class Handler : public KelPublicationErrorHandler, public JournalBase {
 public:
  void handleException(KelPublication* publication, KelException& exception) override {
    note(std::string(publication->getTopicName()) + ": " + exception.what());
  }
};

class KelFixture : public ::testing::Test {
 protected:
  using Factory = std::unique_ptr<KelFactory>;

  KelFixture() : name_("unit-" + std::to_string(nextBroker())), broker(LoopbackBroker::named(name_)) {
    broker->useManualClock();
  }

  /// A member of the group "g"; its client id is name, '-', incarnation.
  Factory factory(const std::string& name, const std::string& incarnation, KelOptions options = {}) {
    options.url = "loopback:" + name_ + "?group=g";
    options.incarnation = incarnation;
    if (!options.wallClockNanoseconds) {
      options.wallClockNanoseconds = [this] { return wallClock.load(); };
    }
    Factory made(Kel::create(name.c_str(), options));
    broker->advance(std::chrono::milliseconds(200));  // everybody knows everybody
    return made;
  }

  /// Lives longer than every factory of the test.
  Listener& newListener() { return listeners_.emplace_back(); }
  Handler& newHandler() { return handlers_.emplace_back(); }

  static void send(KelPublication* publication, int value, std::int64_t time = 1) {
    KelData data;
    data.insert(value, nullptr);
    publication->send(data, KelTimestamp(time));
  }

  /// Everything that is under way in the broker has arrived.
  void settle() { broker->settle(); }
  void advance(std::chrono::milliseconds span) { broker->advance(span); }

  /// Holds when the counters of the receiving side balance.
  static ::testing::AssertionResult balanced(const KelCounters& c) {
    const std::int64_t in = c.received + c.resends;
    const std::int64_t out =
        c.delivered + c.superseded + c.repeated + c.decodeErrors + c.discarded + c.held + c.pending;
    const std::int64_t sendsOut = c.acknowledged + c.refused + c.outgoingSuperseded + c.outgoingPending;
    if (in == out && c.sends == sendsOut) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure()
           << in << " in, " << out << " out; " << c.sends << " sends, " << sendsOut;
  }

  /// Holds when each row of the ledger balances; `quiet`: and all together are what the counters say.
  static ::testing::AssertionResult addsUp(const KelFactory& factory, bool quiet = true) {
    const KelLedger ledger = factory.ledger();
    KelCounters sum;
    for (const KelReceived& row : ledger.received) {
      const KelCounters& c = row.counters;
      if (row.restarted + row.last != row.before + c.received - row.again + c.gaps || !balanced(c)) {
        return ::testing::AssertionFailure()
               << row.publication << " from " << row.publisher << "/" << row.incarnation << ": "
               << row.restarted << " + " << row.last << " numbers, " << row.before << " before, "
               << c.received << " received, " << row.again << " again, " << c.gaps << " gaps; "
               << balanced(c).message();
      }
      sum.received += c.received;
      sum.delivered += c.delivered;
      sum.superseded += c.superseded;
      sum.gaps += c.gaps;
      sum.repeated += c.repeated;
    }
    for (const KelSent& row : ledger.sent) {
      if (row.last != row.counters.sends || !balanced(row.counters)) {
        return ::testing::AssertionFailure()
               << row.publication << ": the last of " << row.counters.sends << " is " << row.last << "; "
               << balanced(row.counters).message();
      }
      sum.sends += row.counters.sends;
      sum.acknowledged += row.counters.acknowledged;
      sum.outgoingSuperseded += row.counters.outgoingSuperseded;
    }
    const KelCounters all = factory.counters();
    const auto figures = [](const KelCounters& c) {
      return std::vector{c.received, c.delivered, c.superseded,   c.gaps,
                         c.repeated, c.sends,     c.acknowledged, c.outgoingSuperseded};
    };
    if (!quiet || figures(sum) == figures(all)) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << ::testing::PrintToString(figures(sum)) << " in the rows, "
                                         << ::testing::PrintToString(figures(all)) << " in all";
  }

  std::atomic<std::int64_t> wallClock{1'700'000'000'000'000'000};

 private:
  static int nextBroker() {
    static std::atomic<int> next{0};
    return ++next;
  }
  const std::string name_;
  std::deque<Listener> listeners_;
  std::deque<Handler> handlers_;

 protected:
  const std::shared_ptr<LoopbackBroker> broker;
};

}  // namespace kel::testing
