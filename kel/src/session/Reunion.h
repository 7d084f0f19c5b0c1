// Reunion: for whom a publisher waits after a lost link before it sends records again.
//
// Links begin clean, so a broker that comes back has nothing for who has not subscribed again: of all that a
// publisher sends before, only the newest of each publication arrives. So every subscriber that was alive
// when the link was lost is awaited, until it says live that all its subscriptions are answered, but never
// for longer than `limit`. Another incarnation of its name that subscribes counts for an awaited one. A
// withdrawal may be the broker's own: one that ends in order publishes everybody's will, and one that is
// alive publishes the will of a lost link when the next one of that member begins. So it counts only when
// the member does not show itself again. Not thread-safe: under the session's lock.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "session/ControlPayload.h"

namespace kel {

enum class ReunionState : std::uint8_t {
  together,  ///< nobody is awaited
  apart,     ///< no link
  waiting,   ///< linked, and somebody is not back yet
};
[[nodiscard]] const char* stateName(ReunionState state);

class Reunion {
 public:
  using Time = std::chrono::steady_clock::time_point;

  /// From the own link on: the longest pause of a transport that tries to connect, and a second to subscribe.
  static constexpr std::chrono::seconds limit{3};
  /// Who was withdrawn and has not shown itself for so long is gone.
  static constexpr std::chrono::seconds grace{1};

  /// `subscribers`: those other members ("name/incarnation") that were alive and had subscriptions.
  void linkDown(const std::vector<std::string>& subscribers);
  void linkUp(Time now);
  /// A live presence.
  void seen(std::string_view peer, const PresenceNews& news);
  /// An empty presence; `subscribed`: of an alive subscriber.
  void withdrawn(std::string_view peer, bool subscribed, Time now);
  /// Ends what has taken too long, and gives who was awaited in vain.
  std::vector<std::string> tick(Time now);
  /// This process was not running for so long: nobody could be heard.
  void forgive(std::chrono::nanoseconds pause);

  [[nodiscard]] bool waiting() const { return state_ == ReunionState::waiting; }

 private:
  struct Awaited {
    std::optional<Time> withdrawn;
  };
  void await(std::string peer);
  void endWhenComplete(std::string_view cause);

  ReunionState state_ = ReunionState::together;
  std::map<std::string, Awaited, std::less<>> awaited_;
  std::set<std::string, std::less<>> back_;           ///< who has counted, for itself or for another
  std::deque<std::pair<Time, std::string>> leaving_;  ///< withdrawn just now, the newest last
  Time since_;                                        ///< of the own link
};

}  // namespace kel
