#include "session/Reunion.h"

#include <algorithm>
#include <utility>

#include "session/PeerTable.h"
#include "session/Transition.h"

namespace kel {

const char* stateName(ReunionState state) {
  switch (state) {
    case ReunionState::together:
      return "together";
    case ReunionState::apart:
      return "apart";
    case ReunionState::waiting:
      return "waiting";
  }
  return "?";
}

void Reunion::await(std::string peer) {
  if (awaited_.size() < PeerTable::mostPeers) awaited_.try_emplace(std::move(peer));
}

void Reunion::linkDown(const std::vector<std::string>& subscribers) {
  // Those still awaited from the link before stay so.
  for (auto& [peer, entry] : awaited_) entry.withdrawn.reset();
  for (const std::string& peer : subscribers) await(peer);
  for (auto& [when, peer] : leaving_) await(std::move(peer));
  leaving_.clear();
  back_.clear();
  if (!awaited_.empty()) transition(state_, ReunionState::apart, "reunion", "link down");
}

void Reunion::linkUp(Time now) {
  since_ = now;
  if (state_ == ReunionState::apart) transition(state_, ReunionState::waiting, "reunion", "link up");
}

void Reunion::seen(std::string_view peer, const PresenceNews& news) {
  if (!waiting()) return;
  auto at = awaited_.find(peer);
  if (news.subscribing != 0) {
    if (at != awaited_.end()) at->second.withdrawn.reset();
    return;
  }
  if (at == awaited_.end()) {
    if (news.subscriptions == 0 || back_.contains(peer)) return;
    const std::string_view name = peer.substr(0, peer.rfind('/') + 1);
    at = std::find_if(awaited_.lower_bound(name), awaited_.end(), [&](const auto& entry) {
      return !entry.first.starts_with(name) || entry.first.rfind('/') + 1 == name.size();
    });
    if (at == awaited_.end() || !at->first.starts_with(name)) return;
  }
  back_.emplace(peer);
  awaited_.erase(at);
  endWhenComplete("all are back");
}

void Reunion::withdrawn(std::string_view peer, bool subscribed, Time now) {
  if (const auto at = awaited_.find(peer); at != awaited_.end()) {
    if (!at->second.withdrawn) at->second.withdrawn = now;
  } else if (subscribed) {
    leaving_.emplace_back(now, peer);
    if (leaving_.size() > PeerTable::mostPeers) leaving_.pop_front();
  }
}

std::vector<std::string> Reunion::tick(Time now) {
  while (!leaving_.empty() && now - leaving_.front().first >= grace) leaving_.pop_front();
  std::vector<std::string> missing;
  if (!waiting()) return missing;
  std::erase_if(awaited_, [&](const auto& entry) {
    return entry.second.withdrawn && now - *entry.second.withdrawn >= grace;
  });
  if (now - since_ >= limit) {
    for (auto& [peer, entry] : awaited_) missing.push_back(peer);
    awaited_.clear();
  }
  endWhenComplete(missing.empty() ? "the others are gone" : "waited for too long");
  return missing;
}

void Reunion::endWhenComplete(std::string_view cause) {
  if (!awaited_.empty()) return;
  back_.clear();
  transition(state_, ReunionState::together, "reunion", cause);
}

void Reunion::forgive(std::chrono::nanoseconds pause) {
  const auto span = std::chrono::duration_cast<Time::duration>(pause);
  since_ += span;
  for (auto& [peer, entry] : awaited_) {
    if (entry.withdrawn) *entry.withdrawn += span;
  }
  for (auto& [when, peer] : leaving_) when += span;
}

}  // namespace kel
