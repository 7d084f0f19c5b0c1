// What the tests of the update thread share: a clock that they drive, and groups without elements, of which
// each publish is one record of the fake library.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "Gateway.h"
#include "kelPubGroup.h"

namespace gateway_test {

/// The wall clock in milliseconds, in place of the system's as long as the object lives.
class DrivenClock {
 public:
  DrivenClock() { runtime::setWallClock(&DrivenClock::read); }
  ~DrivenClock() { runtime::setWallClock(nullptr); }
  DrivenClock(const DrivenClock&) = delete;
  DrivenClock& operator=(const DrivenClock&) = delete;

  static void set(std::int64_t ms) { now_ = ms; }
  static void advance(std::int64_t ms) { now_ += ms; }
  [[nodiscard]] static std::int64_t now() { return now_; }
  /// How often the clock has been read.
  [[nodiscard]] static int reads() { return reads_; }

 private:
  static timeb read() {
    timeb moment{};
    const std::int64_t ms = now_;
    ++reads_;
    moment.time = ms / 1000;
    moment.millitm = static_cast<unsigned short>(ms % 1000);
    return moment;
  }
  static inline std::atomic<std::int64_t> now_{1'700'000'000'000};
  static inline std::atomic<int> reads_{0};
};

/// Groups named "0", "1", ... that have no elements.
class BareGroups {
 public:
  explicit BareGroups(std::size_t count) {
    printedBy([this, count] {
      const CvectorOfdpeMappingTuples none;
      for (std::size_t i = 0; i < count; ++i) {
        groups_.push_back(std::make_unique<CkelPubGroup>(std::to_string(i).c_str(), 100, none));
      }
      gdelayedPubThread.stopInOrder();  // the tests take its turns themselves
    });
  }
  ~BareGroups() {
    printedBy([this] { groups_.clear(); });
  }
  BareGroups(const BareGroups&) = delete;
  BareGroups& operator=(const BareGroups&) = delete;
  [[nodiscard]] CkelPubGroup& operator[](std::size_t index) const { return *groups_[index]; }

 private:
  std::vector<std::unique_ptr<CkelPubGroup>> groups_;
};

}  // namespace gateway_test
