#include "session/PeerTable.h"

#include <algorithm>
#include <utility>

#include "session/Transition.h"
#include "wire/RecordCodec.h"

namespace kel {
namespace {

std::string_view nameOf(std::string_view peer) {
  return peer.substr(0, peer.rfind('/'));
}

}  // namespace

const char* stateName(PeerState state) {
  switch (state) {
    case PeerState::gone:
      return "gone";
    case PeerState::unconfirmed:
      return "unconfirmed";
    case PeerState::alive:
      return "alive";
  }
  return "?";
}

bool PeerTable::room(std::string_view peer) const {
  if (peers_.size() >= mostPeers || peer.size() > longestPublisher) return false;
  const auto at = names_.find(nameOf(peer));
  return at == names_.end() || at->second < mostOfOneName;
}

PeerTable::Change PeerTable::sawPresence(std::string_view peer, bool retained, Time now,
                                         std::chrono::nanoseconds limit, std::int64_t gaveWay) {
  auto at = peers_.find(peer);
  if (at == peers_.end()) {
    if (!room(peer)) {
      ++refused_;
      refusedName_ = nameOf(peer).substr(0, 100);
      return {};
    }
    ++names_[std::string(nameOf(peer))];
    at = peers_.emplace(std::string(peer), Peer{PeerState::gone, now, {}, 0}).first;
  }
  Peer& entry = at->second;
  entry.gaveWay = gaveWay;
  if (!retained || entry.state != PeerState::alive) {
    const std::chrono::nanoseconds most = retained ? unconfirmedLimit : longestLimit;
    entry.limit = std::min(limit, most);
  }
  bool changed = false;
  if (!retained) {
    entry.heard = now;
    changed = entry.state != PeerState::alive &&
              transition(entry.state, PeerState::alive, "publisher " + at->first, "live presence");
  } else if (entry.state == PeerState::gone) {
    changed = transition(entry.state, PeerState::unconfirmed, "publisher " + at->first, "kept presence");
  }
  return {entry.state, changed};
}

bool PeerTable::gaveWayBefore(std::string_view peer, std::int64_t gaveWay) const {
  const auto at = peers_.find(peer);
  return at != peers_.end() && gaveWay > at->second.gaveWay;
}

bool PeerTable::remove(std::string_view peer, std::string_view cause) {
  const auto at = peers_.find(peer);
  if (at == peers_.end()) return false;
  transition(at->second.state, PeerState::gone, "publisher " + at->first, cause);
  const auto name = names_.find(nameOf(peer));
  if (--name->second == 0) names_.erase(name);
  peers_.erase(at);
  return true;
}

void PeerTable::clear(std::string_view cause) {
  for (auto& [name, peer] : peers_) transition(peer.state, PeerState::gone, "publisher " + name, cause);
  peers_.clear();
  names_.clear();
}

std::vector<std::string> PeerTable::expire(Time now) {
  std::vector<std::string> gone;
  for (const auto& [name, peer] : peers_) {
    if (now - peer.heard >= peer.limit) gone.push_back(name);
  }
  for (const std::string& name : gone) remove(name, "not heard of in time");
  std::sort(gone.begin(), gone.end());
  return gone;
}

void PeerTable::forgive(std::chrono::nanoseconds pause) {
  for (auto& [name, peer] : peers_) peer.heard += std::chrono::duration_cast<Time::duration>(pause);
}

PeerState PeerTable::state(std::string_view peer) const {
  const auto at = peers_.find(peer);
  return at == peers_.end() ? PeerState::gone : at->second.state;
}

bool PeerTable::anyUnconfirmed() const {
  return std::any_of(peers_.begin(), peers_.end(),
                     [](const auto& entry) { return entry.second.state == PeerState::unconfirmed; });
}

void PeerTable::subscribes(std::string_view peer, bool does) {
  if (const auto at = peers_.find(peer); at != peers_.end()) at->second.subscribes = does;
}

bool PeerTable::subscribesAlive(std::string_view peer) const {
  const auto at = peers_.find(peer);
  return at != peers_.end() && at->second.state == PeerState::alive && at->second.subscribes;
}

std::vector<std::string> PeerTable::subscribersAlive() const {
  std::vector<std::string> result;
  for (const auto& [peer, entry] : peers_) {
    if (entry.state == PeerState::alive && entry.subscribes) result.push_back(peer);
  }
  std::sort(result.begin(), result.end());
  return result;
}

std::string PeerTable::complaint(Time now) {
  constexpr std::chrono::minutes pause{1};
  if (refused_ == 0 || (complained_ && now - *complained_ < pause)) return {};
  complained_ = now;
  return std::to_string(std::exchange(refused_, 0)) +
         " presences of publishers are passed over, the last one of '" + refusedName_ + "': no more than " +
         std::to_string(mostPeers) + " are taken, " + std::to_string(mostOfOneName) +
         " of one name, of at most " + std::to_string(longestPublisher) + " bytes; who publishes them?";
}

std::vector<std::string> PeerTable::named(std::string_view name) const {
  std::vector<std::string> result;
  for (const auto& [peer, entry] : peers_) {
    if (peer.rfind('/') == name.size() && peer.starts_with(name)) result.push_back(peer);
  }
  return result;
}

}  // namespace kel
