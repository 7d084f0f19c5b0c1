// Refetch: which kept records are asked for once more, and when.
//
// A broker that has more for a client than its queue for it holds drops what comes last, and tells nobody:
// when that publication then falls silent, an old value looks good for ever. What the broker has kept is the
// newest, so it is asked for in rotation, and in a round of all when much came at once or this process stood
// still. Not thread-safe: under the session's lock.
#pragma once

#include <chrono>
#include <cstddef>
#include <list>

namespace kel {

struct InboxTopic;

class Refetch {
 public:
  using Time = std::chrono::steady_clock::time_point;
  using Place = std::list<InboxTopic*>::iterator;

  static constexpr std::chrono::seconds period{30};  ///< of the rotation, while its pace allows
  static constexpr std::chrono::milliseconds pace{
      10};  ///< between two of the rotation; beyond 3,000 it tells
  static constexpr std::size_t bytesPerSecond = 1 << 20;
  static constexpr std::chrono::seconds roundPause{10};  ///< from the beginning of one round to the next
  /// So many live messages from one tick to the next may have come out of a queue: what a broker sends ahead
  /// of our acknowledgements.
  static constexpr std::size_t burst = 200;

  Place add(InboxTopic& topic) { return order_.insert(order_.end(), &topic); }
  void remove(Place place) { order_.erase(place); }

  /// Everything is subscribed anew, and comes by itself.
  void linkUp(Time now);
  /// This process has not read for a while: the broker's queue may have run over.
  void stalled() { live_ = burst + 1; }
  /// A message that the broker had not kept.
  void live() { ++live_; }
  /// Before the calls of next() at this time.
  void tick(Time now);
  /// The topic that is to be fetched now; null when it is none's turn.
  InboxTopic* next(Time now);

 private:
  [[nodiscard]] Time::duration cost(const InboxTopic& topic) const;

  std::list<InboxTopic*> order_;  ///< who waits longest foremost
  Time due_;                      ///< of the next in rotation
  Time paid_;                     ///< until then the pace is used up
  std::size_t live_ = 0;          ///< since the last tick
  bool bursting_ = false;
  Time burstBegan_;
  bool roundDue_ = false;
  std::size_t round_ = 0;  ///< left of the round
  Time roundBegan_;
  Time::duration roundCost_{0};  ///< what it has taken at the pace of the rotation
};

}  // namespace kel
