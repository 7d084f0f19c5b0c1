// The first word to a subscription: the part of Inbox that tells who is not connected.

#include <algorithm>
#include <utility>

#include "session/InboxTopic.h"

namespace kel {
namespace {

/// How long after the group is known its members have to answer the probe, and how long after a subscription
/// stands what the broker has kept has to arrive.
constexpr std::chrono::seconds answerTime{1};

}  // namespace

void Inbox::owe(const std::shared_ptr<SubscriptionHandle>& handle) {
  handle->untold = true;
  handle->created = ports_.now;
  firstWord_.created(ports_.now);
  ++untold_;
}

void Inbox::settle(SubscriptionHandle& handle) {
  if (std::exchange(handle.untold, false)) --untold_;
}

void Inbox::tellConnected(const std::shared_ptr<SubscriptionHandle>& handle) {
  settle(*handle);
  ports_.dispatcher.post(handle, Event::connected());
}

void Inbox::forgive(std::chrono::nanoseconds pause) {
  const auto span = std::chrono::duration_cast<PeerTable::Time::duration>(pause);
  firstWord_.forgive(pause);
  if (upSince_) *upSince_ += span;
  if (groupSince_) *groupSince_ += span;
  if (untold_ == 0) return;
  for (const auto& handle : impossible_) handle->created += span;
  for (auto& [filter, topic] : topics_) {
    if (topic->answered) *topic->answered += span;
    for (const auto& handle : topic->subscriptions) handle->created += span;
  }
}

bool Inbox::certainlyWaiting(const Topic& topic, const SubscriptionHandle& handle) const {
  if (!upSince_) return true;
  const auto patience = refusalPause(ports_.transport);
  if (!groupSince_) return ports_.now - std::max(*upSince_, handle.created) >= patience;
  if (ports_.now - *groupSince_ < answerTime) return false;
  return topic.answered ? ports_.now - *topic.answered >= answerTime
                        : ports_.now - std::max(*groupSince_, handle.created) >= patience;
}

std::string Inbox::whyWaiting(const Topic& topic) const {
  if (!upSince_) return "the link to the broker is down";
  if (!groupSince_) return "the broker does not say who is in the group";
  if (!topic.refusal.empty()) return "the broker refused the subscription: " + topic.refusal;
  if (!topic.answered) return "the broker does not answer the subscription";
  if (topic.unreadable) return "its newest record cannot be read";
  if (topic.held || !topic.owed.empty()) {
    const std::string run = topic.held ? std::string(topic.held->publisher) : topic.owed;
    const auto publisher = PublisherId::parse(run);
    return "publisher " + (publisher ? publisher->name : run) + " gives no sign of life";
  }
  return topic.last.known ? "the publication has no value" : "nobody publishes it";
}

void Inbox::tellUntold() {
  if (untold_ == 0) return;
  const auto tell = [this](const std::shared_ptr<SubscriptionHandle>& handle, std::string reason) {
    settle(*handle);
    ports_.dispatcher.post(handle, Event::disconnected(std::move(reason)));
  };
  std::erase_if(impossible_, [&](const auto& handle) {
    if (!firstWord_.due(handle->created, ports_.now)) return false;
    tell(handle, "no publication can have this name");
    return true;
  });
  for (auto& [filter, topic] : topics_) {
    for (const auto& handle : topic->subscriptions) {
      if (handle->untold && firstWord_.due(handle->created, ports_.now) && certainlyWaiting(*topic, *handle))
        tell(handle, whyWaiting(*topic));
    }
  }
}

}  // namespace kel
