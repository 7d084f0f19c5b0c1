#include "session/Outbox.h"

#include <algorithm>
#include <utility>

#include "session/OutboxName.h"
#include "session/Transition.h"

namespace kel {
namespace {

constexpr std::size_t mostInFlight = 200;

/// Hands the library's complaints to the application's handler.
class HandlerTarget final : public Target {
 public:
  HandlerTarget(KelPublication* publication, KelPublicationErrorHandler* handler)
      : publication_(publication), handler_(handler) {}

  void deliver(const Event& event) override {
    if (handler_ == nullptr) return;
    KelException exception(event.text);
    handler_->handleException(publication_, exception);
  }

 private:
  KelPublication* const publication_;
  KelPublicationErrorHandler* const handler_;
};

}  // namespace

PublicationHandle::PublicationHandle(std::string publication, KelPublicationErrorHandler* handler,
                                     Sender& sender)
    : publication_(std::move(publication)),
      sender_(sender),
      target_(std::make_shared<HandlerTarget>(this, handler)) {
  lane.ready = false;
}

Outbox::Outbox(SessionPorts& ports, std::size_t mostRecords, std::size_t mostBytes)
    : ports_(ports), queue_(mostRecords, mostBytes) {}

Outbox::~Outbox() = default;

void Outbox::count(Name& name, std::int64_t KelCounters::*counter, std::int64_t number) {
  name.counters.*counter += number;
  total_.*counter += number;
}

void Outbox::superseded(Name& name, const OutgoingRecord& record) {
  if (!record.counted) return;
  count(name, &KelCounters::outgoingPending, -1);
  count(name, &KelCounters::outgoingSuperseded);
}

void Outbox::tell(const PublicationHandle& handle, const std::string& text) {
  ports_.dispatcher.post(handle.target(), Event::exception(text));
}

void Outbox::add(const std::shared_ptr<PublicationHandle>& handle) {
  std::string error;
  const auto coded = encodeTopicName(handle->publication(), error);
  if (!coded) {
    tell(*handle, "no publication can be called '" + handle->publication() + "': " + error);
    return;
  }
  auto& slot = names_[*coded];
  if (!slot) slot = std::make_unique<Name>(handle->publication(), *coded);
  Name& name = *slot;
  handle->name = &name;
  name.handles.push_back(handle);
  if (name.handles.size() > 1) {
    tell(*handle, "publication " + name.publication + " is already published by this process");
  } else if (online_ && name.state == PublicationState::unclaimed) {
    claim(name, "created");
  }
}

void Outbox::remove(PublicationHandle& handle) {
  if (handle.name == nullptr) return;
  Name& name = *std::exchange(handle.name, nullptr);
  const bool wasActive = name.handles.front().get() == &handle;
  queue_.clear(handle, [&](const OutgoingRecord& record) { superseded(name, record); });
  std::erase_if(name.handles, [&](const auto& other) { return other.get() == &handle; });
  if (!wasActive) return;
  if (!name.handles.empty()) {
    if (name.state == PublicationState::owner) activate(name, true);
    return;
  }
  if (name.state == PublicationState::owner) {
    publishClosed(name);
    removeName(name);
  } else if (name.state == PublicationState::claiming ||
             (name.state == PublicationState::unclaimed && name.published)) {
    name.mustClose = true;  // once it is known whose name it is
  } else {
    removeName(name);
  }
}

void Outbox::removeName(Name& name) {
  claimRefusals_.forget(name.coded);
  recordRefusals_.forget(name.coded);
  if (name.claimSubscribed) ports_.subscribes.cancel(ports_.topics.claim(name.coded));
  // What is still under way keeps its handle, which has lost its name.
  names_.erase(names_.find(name.coded));
}

std::uint64_t Outbox::publishControl(const std::string& topic, std::string payload) {
  OutgoingMessage message;
  message.topic = topic;
  message.payload = std::make_shared<const std::string>(std::move(payload));
  const std::uint64_t token = controlToken | nextControl_++;
  ports_.transport.publish(message, token);
  return token;
}

void Outbox::claimPublished(std::uint64_t token, std::string_view failure) {
  const auto at = claimTokens_.find(token);
  if (at == claimTokens_.end()) return;
  const auto name = names_.find(at->second);
  claimTokens_.erase(at);
  if (name == names_.end()) return;
  if (failure.empty()) {
    name->second->claimTaken = true;
    name->second->claimTakenAt = ports_.now;
  } else {
    claimRefused(*name->second, failure, false);
  }
}

void Outbox::publishClosed(Name& name) {
  publishControl(ports_.topics.data(name.coded), {});
  publishControl(ports_.topics.claim(name.coded), {});
}

EncodedRecord Outbox::badRecord(PublicationHandle& handle, std::string_view reason) const {
  const std::string self = ports_.self.text();
  const RecordHeader header{handle.everSent ? 0 : -1, KelTimestamp(ports_.wallClockNanoseconds()), self,
                            reason};
  std::string_view fields;
  if (handle.everSent) {
    fields = std::string_view(*handle.last).substr(handle.fieldsBegin, handle.fieldsEnd - handle.fieldsBegin);
  }
  return encodeRecord(fields, header);
}

void Outbox::send(PublicationHandle& handle, EncodedRecord record, bool isGood) {
  if (handle.name == nullptr) return;
  Name& name = *handle.name;
  count(name, &KelCounters::sends);
  if (record.bytes.size() + 32 > largestPayload) {
    count(name, &KelCounters::refused);
    tell(handle, "a record of " + std::to_string(record.bytes.size()) +
                     " bytes is too large for publication " + name.publication);
    return;
  }
  appendSequence(record.bytes, ++name.sequence);
  if (isGood) handle.everSent = true;
  handle.fieldsBegin = record.fieldsBegin;
  handle.fieldsEnd = record.fieldsEnd;
  handle.last = std::make_shared<const std::string>(std::move(record.bytes));
  count(name, &KelCounters::outgoingPending);
  const auto owner = handle.shared_from_this();
  const auto dropped = [&](const OutgoingRecord& old) { superseded(name, old); };
  queue_.push(owner, {handle.last->size(), true, true, handle.last}, dropped);
  const bool active = name.handles.front().get() == &handle;
  // Who does not own the name keeps its last record and nothing else.
  if (!active || name.state == PublicationState::waiting) queue_.trim(handle, 1, dropped);
  pump();
}

void Outbox::activate(Name& name, bool resendLast) {
  const auto& handle = name.handles.front();
  if (resendLast && handle->lane.items.empty() && handle->last) {
    queue_.push(handle, {handle->last->size(), true, false, handle->last}, [](const OutgoingRecord&) {});
  }
  queue_.setReady(handle, true);
  pump();
}

void Outbox::pump() {
  while (online_ && inFlight_.size() < mostInFlight) {
    auto next = queue_.pop();
    if (!next) return;
    auto& [handle, record] = *next;
    OutgoingMessage message;
    message.topic = handle->name->dataTopic;
    message.payload = record.payload;
    message.qos = ports_.qos;
    const std::uint64_t token = firstInFlight_ + inFlight_.size();
    if (message.topic.empty())
      message.topic = handle->name->dataTopic = ports_.topics.data(handle->name->coded);
    if (!ports_.transport.publish(message, token)) {
      queue_.pushFront(handle, std::move(record));
      return;
    }
    handle->name->published = true;
    inFlight_.push_back({std::move(handle), std::move(record), false});
  }
}

void Outbox::published(std::uint64_t token, std::string_view failure) {
  if ((token & controlToken) != 0) {
    claimPublished(token, failure);
    return;
  }
  if (token < firstInFlight_ || token - firstInFlight_ >= inFlight_.size()) return;
  InFlight& entry = inFlight_[token - firstInFlight_];
  if (entry.done) return;
  entry.done = true;
  PublicationHandle& handle = *entry.handle;
  if (entry.record.counted) {
    // A handle that was destroyed meanwhile has no name; its record still ended this way.
    KelCounters unnamed;
    KelCounters& counters = handle.name == nullptr ? unnamed : handle.name->counters;
    for (KelCounters* each : {&counters, &total_}) {
      --each->outgoingPending;
      ++(failure.empty() ? each->acknowledged : each->refused);
    }
  }
  if (handle.name != nullptr) {
    if (failure.empty()) {
      recordRefusals_.granted(handle.name->coded);
    } else {
      const std::string text =
          "the broker refused a record of publication " + handle.publication() + ": " + std::string(failure);
      if (recordRefusals_.refused(handle.name->coded, text, "to write " + handle.name->dataTopic, ports_.now))
        tell(handle, text);
    }
  }
  while (!inFlight_.empty() && inFlight_.front().done) {
    inFlight_.pop_front();
    ++firstInFlight_;
  }
  pump();
}

void Outbox::linkDown() {
  online_ = false;
  earlierUnderName_.clear();
  claimRefusals_.linkDown();
  recordRefusals_.linkDown();
  firstInFlight_ += inFlight_.size();
  // Back to the front, the oldest foremost.
  while (!inFlight_.empty()) {
    InFlight entry = std::move(inFlight_.back());
    inFlight_.pop_back();
    if (entry.done) continue;
    if (entry.handle->name != nullptr) {
      queue_.pushFront(entry.handle, std::move(entry.record));
    } else if (entry.record.counted) {
      --total_.outgoingPending;
      ++total_.outgoingSuperseded;
    }
  }
  claimTokens_.clear();
  for (auto& [coded, name] : names_) {
    name->claimSubscribed = false;
    name->claimTaken = false;
    name->rival.clear();
    transition(name->state, PublicationState::unclaimed, "publication " + name->publication, "link down");
    for (const auto& handle : name->handles) queue_.setReady(handle, false);
  }
}

void Outbox::addCounters(std::string_view publication, KelCounters& counters) const {
  for (const auto& [coded, name] : names_) {
    if (name->publication != publication) continue;
    counters.sends = name->counters.sends;
    counters.acknowledged = name->counters.acknowledged;
    counters.refused = name->counters.refused;
    counters.outgoingSuperseded = name->counters.outgoingSuperseded;
    counters.outgoingPending = name->counters.outgoingPending;
  }
}

}  // namespace kel
