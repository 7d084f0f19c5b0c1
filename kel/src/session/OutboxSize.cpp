// Records that a broker takes for too large: the part of Outbox that declares their publications bad.

#include <algorithm>
#include <utility>

#include "session/Outbox.h"
#include "session/OutboxName.h"

namespace kel {
namespace {

using namespace std::chrono_literals;

/// A record that was under way, as the largest, at so many losses of the link in a row is their cause.
constexpr int lossesThatConvict = 3;
/// No broker's limit is so low, and every broken network has small records under way.
constexpr std::size_t leastSuspect = 16U << 10U;
/// For how long no record is tried that is as large as one that ended a link.
constexpr auto linkEndingRemembered = 10min;

/// What a record is called.
constexpr const char* aRecord = "a record";

}  // namespace

// An empty failure: nobody was asked, it is our own limit.
std::string tooLargeText(const std::string& what, const std::string& of, const Oversize& size) {
  const char* const taker = size.failure.empty() ? "Kel" : "the broker";
  return what + " of " + std::to_string(size.size) + " bytes" + of + " is too large for " + taker +
         (size.limit == 0 ? std::string(", which does not say how much it takes")
                          : ", which takes at most " + std::to_string(size.limit) + " bytes");
}

std::string tooLargeAsSaid(const std::string& what, const std::string& of, const Oversize& size) {
  std::string text = tooLargeText(what, of, size);
  if (!size.failure.empty()) text.append(": ").append(size.failure);
  return text;
}

void Outbox::oversize(std::uint64_t token, const Oversize& what) {
  if ((token & controlToken) != 0) {
    if (Name* const name = claimed(token)) {
      claimRefused(*name, tooLargeAsSaid("the claim", " on publication " + name->publication, what), {});
    }
    return;
  }
  if (token < firstInFlight_ || token - firstInFlight_ >= inFlight_.size()) return;
  InFlight& entry = inFlight_[token - firstInFlight_];
  if (entry.done) return;
  entry.done = true;
  settled(*entry.handle->book, entry.record, false);
  tooLarge(*entry.handle, entry.record.sequence, what);
  forgetDone();
  pump();
}

void Outbox::tooLarge(PublicationHandle& handle, std::int64_t sequence, const Oversize& what) {
  if (what.endsLink) {
    if (ports_.now >= endsLinksUntil_) endsLinks_ = what.size;
    endsLinks_ = std::min(endsLinks_, what.size);
    endsLinksUntil_ = ports_.now + linkEndingRemembered;
  }
  if (handle.name == nullptr) return;
  const std::string text = tooLargeAsSaid(aRecord, " of publication " + handle.publication(), what);
  const std::string line = text + "; it is declared bad until a record fits";
  if (sizeRefusals_.refused(handle.name->coded, line, ports_.now)) tell(handle, text);
  // What was sent after it has the last word.
  if (sequence == handle.lastSequence) declareTooLarge(handle, what);
}

void Outbox::declareTooLarge(PublicationHandle& handle, const Oversize& what) {
  if (handle.lastOf == LastRecord::badWithoutFields) {
    sizeRefusals_.say(LogLevel::warn,
                      "publication " + handle.publication() +
                          " cannot even be declared bad: " + tooLargeText(aRecord, {}, what),
                      ports_.now);
    return;
  }
  std::string_view fields;
  LastRecord next = LastRecord::badWithoutFields;
  if (handle.lastOf == LastRecord::application) {
    handle.sizeReason = tooLargeText(aRecord, {}, what);
    if (handle.taken && handle.taken->bytes < what.size) {
      next = LastRecord::badInItsPlace;
      fields = std::string_view(*handle.taken->payload)
                   .substr(handle.taken->fieldsBegin, handle.taken->fieldsEnd - handle.taken->fieldsBegin);
    }
  }
  const std::string self = ports_.self.text();
  const RecordHeader header{0, KelTimestamp(ports_.wallClockNanoseconds()), self, handle.sizeReason};
  enqueue(handle, encodeRecord(fields, header), next);
}

void Outbox::takenByBroker(PublicationHandle& handle, const OutgoingRecord& record) {
  const std::string& coded = handle.name->coded;
  if (record.fieldsEnd > record.fieldsBegin && (!handle.taken || handle.taken->sequence <= record.sequence)) {
    handle.taken = record;
  }
  if (record.sequence == handle.lastSequence && handle.lastOf == LastRecord::application)
    sizeRefusals_.fits(coded, "publication " + handle.publication() + " has a record that fits again",
                       ports_.now);
  if (record.sequence == suspectSequence_ && coded == suspect_) suspectLosses_ = 0;
}

bool Outbox::endsLinks(const OutgoingRecord& record) const {
  return record.bytes >= endsLinks_ && ports_.now < endsLinksUntil_;
}

void Outbox::refuseQueued(PublicationHandle& handle, const OutgoingRecord& record) {
  settled(*handle.book, record, false);
  tooLarge(handle, record.sequence, {record.bytes, 0, "one of that size has ended the link", false});
}

// Some brokers close the link over a record that is too large and do not say why; a link that is made again
// and gets the record again would never hold. No smaller record can be the cause if the largest is not.
Outbox::InFlight* Outbox::convictedOfLostLinks() {
  InFlight* largest = nullptr;
  for (InFlight& entry : inFlight_) {
    if (entry.done || entry.handle->name == nullptr) continue;
    if (largest == nullptr || entry.record.bytes > largest->record.bytes) largest = &entry;
  }
  if (largest == nullptr) return nullptr;  // the link did not hold long enough to tell
  const std::string& coded = largest->handle->name->coded;
  const bool same = coded == suspect_ && largest->record.sequence == suspectSequence_;
  suspect_ = coded;
  suspectSequence_ = largest->record.sequence;
  suspectLosses_ = same ? suspectLosses_ + 1 : 1;
  if (largest->record.bytes < leastSuspect || suspectLosses_ < lossesThatConvict) return nullptr;
  suspectLosses_ = 0;
  return largest;
}

}  // namespace kel
