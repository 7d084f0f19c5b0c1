// PeerTable: which other process runs of publishers are alive, as far as this session knows.
//
// A presence that the broker had kept proves nothing: it may have outlived its publisher. Its owner is
// `unconfirmed` until a presence arrives live. Unconfirmed and alive peers alike are gone when no live
// presence has arrived for the time limit. What a presence says of its own limit is believed within bounds:
// up to longestLimit for who is alive, up to unconfirmedLimit for who is not confirmed, for it answers a
// probe at once if it lives. So many peers are known and no more, and so many of one name: whoever may write
// presences below one name cannot keep others out. Not thread-safe: under the session's lock.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace kel {

enum class PeerState : std::uint8_t { gone, unconfirmed, alive };
[[nodiscard]] const char* stateName(PeerState state);

/// Lookup by string_view without making a string.
struct TextHash {
  using is_transparent = void;
  std::size_t operator()(std::string_view text) const { return std::hash<std::string_view>()(text); }
};
template <class Value>
using TextMap = std::unordered_map<std::string, Value, TextHash, std::equal_to<>>;

class PeerTable {
 public:
  using Time = std::chrono::steady_clock::time_point;

  static constexpr std::size_t mostPeers = 10'000;
  static constexpr std::size_t mostOfOneName = 100;
  static constexpr std::chrono::seconds longestKeepAlive{60};  ///< that a presence may name
  static constexpr std::chrono::seconds longestLimit = 2 * longestKeepAlive;
  static constexpr std::chrono::seconds unconfirmedLimit{10};

  /// The state after a presence of `peer` ("name/incarnation"), and whether that is news.
  struct Change {
    PeerState state = PeerState::gone;
    bool changed = false;
  };
  Change sawPresence(std::string_view peer, bool retained, Time now, std::chrono::nanoseconds limit,
                     std::int64_t gaveWay = 0);
  /// It has gone behind the others of its name since its last presence, if it says so many times now.
  [[nodiscard]] bool gaveWayBefore(std::string_view peer, std::int64_t gaveWay) const;
  /// Its presence was withdrawn. False when it was not known.
  bool remove(std::string_view peer, std::string_view cause);
  void clear(std::string_view cause);

  /// Takes out who has not been heard of in time.
  std::vector<std::string> expire(Time now);
  /// This process was not running for so long: nobody could be heard.
  void forgive(std::chrono::nanoseconds pause);

  [[nodiscard]] PeerState state(std::string_view peer) const;
  [[nodiscard]] bool alive(std::string_view peer) const { return state(peer) == PeerState::alive; }
  [[nodiscard]] bool known(std::string_view peer) const { return state(peer) != PeerState::gone; }
  [[nodiscard]] bool anyUnconfirmed() const;
  /// Whether it has subscriptions, by its last live presence.
  void subscribes(std::string_view peer, bool does);
  [[nodiscard]] bool subscribesAlive(std::string_view peer) const;
  /// Everybody who is alive and has subscriptions, in order.
  [[nodiscard]] std::vector<std::string> subscribersAlive() const;
  /// What to say about presences beyond mostPeers: at most once a minute, else empty.
  std::string complaint(Time now);
  /// Everybody known under this publisher's name.
  [[nodiscard]] std::vector<std::string> named(std::string_view name) const;

 private:
  struct Peer {
    PeerState state = PeerState::gone;
    Time heard;
    std::chrono::nanoseconds limit{};
    std::int64_t gaveWay = 0;  ///< times, by its last presence
    bool subscribes = false;
  };
  [[nodiscard]] bool room(std::string_view peer) const;

  TextMap<Peer> peers_;
  TextMap<std::size_t> names_;  ///< how many are known of each name
  std::string refusedName_;     ///< of the last presence beyond the bounds
  std::int64_t refused_ = 0;    ///< presences beyond mostPeers since they were last spoken of
  std::optional<Time> complained_;
};

}  // namespace kel
