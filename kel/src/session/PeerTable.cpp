#include "session/PeerTable.h"

#include <algorithm>

#include "session/Transition.h"

namespace kel {

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

PeerTable::Change PeerTable::sawSign(std::string_view peer, Time now, std::chrono::nanoseconds limit) {
  const auto at = peers_.find(peer);
  return sawPresence(peer, false, now, at == peers_.end() ? limit : at->second.limit);
}

PeerTable::Change PeerTable::sawPresence(std::string_view peer, bool retained, Time now,
                                         std::chrono::nanoseconds limit) {
  auto at = peers_.find(peer);
  if (at == peers_.end()) at = peers_.emplace(std::string(peer), Peer{PeerState::gone, now, limit}).first;
  Peer& entry = at->second;
  entry.limit = limit;
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

bool PeerTable::remove(std::string_view peer, std::string_view cause) {
  const auto at = peers_.find(peer);
  if (at == peers_.end()) return false;
  transition(at->second.state, PeerState::gone, "publisher " + at->first, cause);
  peers_.erase(at);
  return true;
}

void PeerTable::clear(std::string_view cause) {
  for (auto& [name, peer] : peers_) transition(peer.state, PeerState::gone, "publisher " + name, cause);
  peers_.clear();
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

std::vector<std::string> PeerTable::named(std::string_view name) const {
  std::vector<std::string> result;
  for (const auto& [peer, entry] : peers_) {
    if (peer.rfind('/') == name.size() && peer.starts_with(name)) result.push_back(peer);
  }
  return result;
}

}  // namespace kel
