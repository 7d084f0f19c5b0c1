// PeerTable: which other process runs of publishers are alive, as far as this session knows.
//
// A presence that the broker had kept proves nothing: it may have outlived its publisher. Its owner is
// `unconfirmed` until a presence arrives live. Unconfirmed and alive peers alike are gone when no live
// presence has arrived for the time limit. Not thread-safe: under the session's lock.
#pragma once

#include <chrono>
#include <cstdint>
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

  /// The state after a presence of `peer` ("name/incarnation"), and whether that is news.
  struct Change {
    PeerState state = PeerState::gone;
    bool changed = false;
  };
  Change sawPresence(std::string_view peer, bool retained, Time now, std::chrono::nanoseconds limit);
  /// Another live sign of it; its time limit stays, or is this one when it was not known.
  Change sawSign(std::string_view peer, Time now, std::chrono::nanoseconds limit);
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
  /// Everybody known under this publisher's name.
  [[nodiscard]] std::vector<std::string> named(std::string_view name) const;

 private:
  struct Peer {
    PeerState state = PeerState::gone;
    Time heard;
    std::chrono::nanoseconds limit{};
  };
  TextMap<Peer> peers_;
};

}  // namespace kel
