#include "session/Refetch.h"

#include <algorithm>
#include <utility>

#include "session/InboxTopic.h"

namespace kel {
namespace {

/// What ticks that come late leave unused is not lost.
constexpr std::chrono::milliseconds credit{200};

}  // namespace

void Refetch::linkUp(Time now) {
  due_ = now + std::chrono::seconds(1);
  paid_ = now;
  live_ = 0;
  bursting_ = false;
  roundDue_ = false;
  round_ = 0;
  roundBegan_ = now;
  roundCost_ = Time::duration(0);
}

void Refetch::tick(Time now) {
  if (std::exchange(live_, 0) <= burst) {
    bursting_ = false;
  } else {
    roundDue_ = true;
    if (!std::exchange(bursting_, true)) burstBegan_ = now;
  }
  // What is fetched while more comes than the broker can queue may be dropped like all else: so after it, and
  // when it does not end, now and then in its midst.
  const bool ready = !bursting_ || now - burstBegan_ >= roundPause;
  if (!roundDue_ || round_ != 0 || !ready) return;
  if (now - roundBegan_ < std::max<Time::duration>(roundPause, roundCost_)) return;
  roundDue_ = false;
  round_ = order_.size();
  roundBegan_ = now;
  roundCost_ = Time::duration(0);
}

Refetch::Time::duration Refetch::cost(const InboxTopic& topic) const {
  const auto carried = std::chrono::nanoseconds(std::chrono::seconds(1)) *
                       static_cast<std::int64_t>(topic.keptBytes) / static_cast<std::int64_t>(bytesPerSecond);
  return std::max<Time::duration>(pace, carried);
}

InboxTopic* Refetch::next(Time now) {
  if (order_.empty()) return nullptr;
  InboxTopic* const topic = order_.front();
  const auto spent = cost(*topic);
  if (round_ != 0) {
    --round_;
    roundCost_ += spent;
  } else {
    if (now < due_ || now < paid_) return nullptr;
    paid_ = std::max(paid_, now - credit) + spent;
    due_ = std::max(due_, now - credit) + Time::duration(period) / static_cast<std::int64_t>(order_.size());
  }
  order_.splice(order_.end(), order_, order_.begin());
  return topic;
}

}  // namespace kel
