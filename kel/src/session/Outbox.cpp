#include "session/Outbox.h"

#include <algorithm>
#include <utility>

#include "session/OutboxName.h"
#include "session/Transition.h"

namespace kel {
namespace {

constexpr std::size_t mostInFlight = 200;
/// So many destroyed publications are known by name.
constexpr std::size_t rememberedClosed = 256;

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

void Outbox::count(SendBook& book, std::int64_t KelCounters::*counter, std::int64_t number) {
  SendBook& standing = book.into ? *book.into : book;
  standing.row.counters.*counter += number;
  total_.*counter += number;
}

void Outbox::superseded(SendBook& book, const OutgoingRecord& record) {
  if (!record.counted) return;
  count(book, &KelCounters::outgoingPending, -1);
  count(book, &KelCounters::outgoingSuperseded);
}

void Outbox::tell(const PublicationHandle& handle, const std::string& text) {
  ports_.dispatcher.post(handle.target(), Event::exception(text));
}

void Outbox::add(const std::shared_ptr<PublicationHandle>& handle) {
  std::string error;
  const auto coded = encodeTopicName(handle->publication(), error);
  if (!coded) {
    tell(*handle, impossibleName("published", handle->publication(), error));
    return;
  }
  auto& slot = names_[*coded];
  if (!slot) {
    slot = std::make_unique<Name>(handle->publication(), *coded, openBook(handle->publication(), *coded));
  }
  Name& name = *slot;
  handle->name = &name;
  handle->book = name.book;
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
  queue_.clear(handle, [&](const OutgoingRecord& record) { superseded(*name.book, record); });
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
  sizeRefusals_.forget(name.coded);
  if (name.claimSubscribed) ports_.subscribes.cancel(ports_.topics.claim(name.coded));
  // What is still under way keeps its handle, which has lost its name.
  closeBook(name.book);
  names_.erase(names_.find(name.coded));
}

std::shared_ptr<SendBook> Outbox::openBook(const std::string& publication, const std::string& coded) {
  const auto at = std::find_if(closed_.begin(), closed_.end(),
                               [&](const auto& book) { return book->publication == coded; });
  if (at != closed_.end()) {
    std::shared_ptr<SendBook> book = std::move(*at);
    closed_.erase(at);
    return book;
  }
  auto book = std::make_shared<SendBook>();
  book->publication = coded;
  book->row.publication = publication;
  return book;
}

void Outbox::closeBook(const std::shared_ptr<SendBook>& book) {
  closed_.push_back(book);
  if (closed_.size() <= rememberedClosed) return;
  SendBook& oldest = *closed_.front();
  forgotten_->row.last += oldest.row.last;
  for (const auto counter : {&KelCounters::sends, &KelCounters::acknowledged, &KelCounters::refused,
                             &KelCounters::outgoingSuperseded, &KelCounters::outgoingPending}) {
    forgotten_->row.counters.*counter += oldest.row.counters.*counter;
  }
  oldest.into = forgotten_;
  closed_.pop_front();
}

std::uint64_t Outbox::publishControl(const std::string& topic, std::string payload) {
  OutgoingMessage message;
  message.topic = topic;
  message.payload = std::make_shared<const std::string>(std::move(payload));
  const std::uint64_t token = controlToken | nextControl_++;
  ports_.transport.publish(message, token);
  return token;
}

Outbox::Name* Outbox::claimed(std::uint64_t token) {
  const auto at = claimTokens_.find(token);
  if (at == claimTokens_.end()) return nullptr;
  const auto name = names_.find(at->second);
  claimTokens_.erase(at);
  return name == names_.end() ? nullptr : name->second.get();
}

void Outbox::claimPublished(std::uint64_t token, std::string_view failure) {
  Name* const name = claimed(token);
  if (name == nullptr) return;
  if (failure.empty()) {
    name->claimTaken = true;
    name->claimTakenAt = ports_.now;
  } else {
    claimRefused(*name, refusedClaim(*name, failure), "to write " + ports_.topics.claim(name->coded));
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
  SendBook& book = *name.book;
  handle.good = isGood;
  if (isGood) {
    handle.everSent = true;
    badSince_.reset();
  }
  if (const std::size_t size = record.bytes.size(); size + 32 > largestPayload) {
    count(book, &KelCounters::sends);
    ++book.row.last;
    count(book, &KelCounters::refused);
    handle.lastSequence = book.row.last;
    handle.lastOf = LastRecord::application;
    tooLarge(handle, handle.lastSequence, {size, largestPayload, {}, false});
  } else {
    enqueue(handle, std::move(record), LastRecord::application);
  }
  pump();
}

void Outbox::enqueue(PublicationHandle& handle, EncodedRecord record, LastRecord lastOf) {
  Name& name = *handle.name;
  SendBook& book = *name.book;
  count(book, &KelCounters::sends);
  ++book.row.last;
  appendSequence(record.bytes, book.row.last);
  handle.lastOf = lastOf;
  handle.fieldsBegin = record.fieldsBegin;
  handle.fieldsEnd = record.fieldsEnd;
  handle.last = std::make_shared<const std::string>(std::move(record.bytes));
  handle.lastSequence = book.row.last;
  count(book, &KelCounters::outgoingPending);
  const auto owner = handle.shared_from_this();
  const auto dropped = [&](const OutgoingRecord& old) { superseded(book, old); };
  queue_.push(owner,
              {handle.last->size(), true, true, handle.lastSequence, handle.last, handle.fieldsBegin,
               handle.fieldsEnd},
              dropped);
  const bool active = name.handles.front().get() == &handle;
  // Who does not own the name keeps its last record and nothing else.
  if (!active || name.state == PublicationState::waiting) queue_.trim(handle, 1, dropped);
}

void Outbox::activate(Name& name, bool resendLast) {
  const auto& handle = name.handles.front();
  if (resendLast && handle->lane.items.empty() && handle->last) {
    queue_.push(handle,
                {handle->last->size(), true, false, handle->lastSequence, handle->last, handle->fieldsBegin,
                 handle->fieldsEnd},
                [](const OutgoingRecord&) {});
  }
  queue_.setReady(handle, true);
  pump();
}

void Outbox::hold(bool on) {
  held_ = on;
  pump();
}

void Outbox::pump() {
  while (online_ && !held_ && inFlight_.size() < mostInFlight) {
    auto next = queue_.pop();
    if (!next) return;
    auto& [handle, record] = *next;
    if (endsLinks(record)) {
      refuseQueued(*handle, record);
      continue;
    }
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
  // A handle that was destroyed meanwhile has no name; its book is still there.
  settled(*handle.book, entry.record, failure.empty());
  if (handle.name != nullptr) {
    if (failure.empty()) {
      recordRefusals_.granted(handle.name->coded);
      takenByBroker(handle, entry.record);
    } else {
      const std::string text =
          "the broker refused a record of publication " + handle.publication() + ": " + std::string(failure);
      if (recordRefusals_.refused(handle.name->coded, text, "to write " + handle.name->dataTopic, ports_.now))
        tell(handle, text);
    }
  }
  forgetDone();
  pump();
}

void Outbox::settled(SendBook& book, const OutgoingRecord& record, bool taken) {
  if (record.counted) {
    count(book, &KelCounters::outgoingPending, -1);
    count(book, taken ? &KelCounters::acknowledged : &KelCounters::refused);
  }
  if (taken) book.row.lastAcknowledged = std::max(book.row.lastAcknowledged, record.sequence);
}

void Outbox::forgetDone() {
  while (!inFlight_.empty() && inFlight_.front().done) {
    inFlight_.pop_front();
    ++firstInFlight_;
  }
}

void Outbox::linkDown() {
  online_ = false;
  earlierUnderName_.clear();
  claimRefusals_.linkDown();
  recordRefusals_.linkDown();
  firstInFlight_ += inFlight_.size();
  std::optional<InFlight> convicted;
  if (InFlight* const entry = convictedOfLostLinks()) {
    entry->done = true;
    convicted = *entry;
    settled(*entry->handle->book, entry->record, false);
  }
  // Back to the front, the oldest foremost.
  while (!inFlight_.empty()) {
    InFlight entry = std::move(inFlight_.back());
    inFlight_.pop_back();
    if (entry.done) continue;
    if (entry.handle->name != nullptr) {
      queue_.pushFront(entry.handle, std::move(entry.record));
    } else {
      superseded(*entry.handle->book, entry.record);
    }
  }
  claimTokens_.clear();
  for (auto& [coded, name] : names_) {
    name->claimSubscribed = false;
    name->claimTaken = false;
    name->rival.clear();
    name->unheard.reset();
    transition(name->state, PublicationState::unclaimed, "publication " + name->publication, "link down");
    for (const auto& handle : name->handles) queue_.setReady(handle, false);
  }
  if (convicted) {
    tooLarge(*convicted->handle, convicted->record.sequence,
             {convicted->record.bytes, 0, "it ends the link whenever it gets this record", true});
  }
}

void Outbox::addCounters(std::string_view publication, KelCounters& counters) const {
  for (const auto& [coded, name] : names_) {
    if (name->publication != publication) continue;
    const KelCounters& sent = name->book->row.counters;
    counters.sends = sent.sends;
    counters.acknowledged = sent.acknowledged;
    counters.refused = sent.refused;
    counters.outgoingSuperseded = sent.outgoingSuperseded;
    counters.outgoingPending = sent.outgoingPending;
  }
}

std::vector<KelSent> Outbox::ledger() const {
  std::vector<KelSent> rows;
  rows.reserve(names_.size() + closed_.size() + 1);
  for (const auto& [coded, name] : names_) rows.push_back(name->book->row);
  for (const auto& book : closed_) rows.push_back(book->row);
  std::sort(rows.begin(), rows.end(),
            [](const KelSent& a, const KelSent& b) { return a.publication < b.publication; });
  if (forgotten_->row.counters.sends != 0) rows.push_back(forgotten_->row);
  return rows;
}

}  // namespace kel
