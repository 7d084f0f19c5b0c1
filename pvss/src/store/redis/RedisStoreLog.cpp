// What comes from the store: snapshots, and the change log in its one order.
#include <algorithm>
#include <charconv>
#include <utility>

#include "log/Log.h"
#include "store/ValueCodec.h"
#include "store/redis/AttributeText.h"
#include "store/redis/CatalogueText.h"
#include "store/redis/RedisStore.h"
#include "store/redis/ServerError.h"

namespace pvss::redis {
namespace {

template <typename Integer>
Integer numberOf(std::string_view digits) {
  Integer value = 0;
  std::from_chars(digits.data(), digits.data() + digits.size(), value);
  return value;
}

/// Takes "<length>:<bytes>" from the front; false when there is none.
bool takeNetstring(std::string_view& from, std::string_view& text) {
  const std::size_t colon = from.find(':');
  if (colon == std::string_view::npos) return false;
  const auto length = numberOf<std::size_t>(from.substr(0, colon));
  if (length > from.size() - colon - 1) return false;
  text = from.substr(colon + 1, length);
  from.remove_prefix(colon + 1 + length);
  return true;
}

}  // namespace

// ---- Snapshots
//
// One call of the server is one moment. More elements than one call should carry are asked for in several
// calls, the first true as of sequence A and the last as of B. If B is not A, one more call names every
// element that changed after A together with its state, as of C. An element that is not named has not changed
// between A and C, so whichever call it came with, its state is also the one as of C: with the named ones
// replaced, the whole answer is true as of C.

void RedisStore::readSnapshot(std::uint64_t request, const std::vector<ElementId>& elements) {
  if (state_ != LinkState::up) return;
  Snapshot& snapshot = snapshots_.emplace_back();
  snapshot.request = request;
  snapshot.states.resize(elements.size());
  for (std::size_t i = 0; i < elements.size(); ++i) snapshot.states[i].attributes.element = elements[i];
  restartSnapshot(snapshot);
}

void RedisStore::restartSnapshot(Snapshot& snapshot) {
  snapshot.number = nextSnapshot_++;
  snapshot.asked = 0;
  snapshot.answered = 0;
  do {
    sendSnapshotChunk(snapshot, snapshot.asked);
  } while (snapshot.asked < snapshot.states.size());
}

void RedisStore::sendSnapshotChunk(Snapshot& snapshot, std::size_t first) {
  const std::size_t count = std::min(options_.snapshotElements, snapshot.states.size() - first);
  RespWriter out(call(Tag::snapshot, snapshot.number, "dp_snap", count));
  for (std::size_t i = first; i < first + count; ++i) {
    out.text(directory_->nameOf(snapshot.states[i].attributes.element));
  }
  snapshot.asked = first + count;
}

RedisStore::Snapshot* RedisStore::findSnapshot(std::uint64_t number) {
  const auto found = std::find_if(snapshots_.begin(), snapshots_.end(),
                                  [&](const Snapshot& s) { return s.number == number; });
  return found == snapshots_.end() ? nullptr : &*found;
}

/// Takes one state (v i 1 2 t ti) from a reply; the element is known already.
void RedisStore::takeState(ReplyCursor& reply, ElementState& state) {
  ElementAttributes& attributes = state.attributes;
  attributes.mask = attributeValue | attributeInvalid | attributeUserBit1 | attributeUserBit2;
  attributes.value.reset();
  attributes.unreadable = false;
  reply.array();
  if (reply.isNil()) {
    reply.skip();
  } else {
    const std::string_view text = reply.text();
    const DpElementType type = directory_->typeOf(attributes.element);
    if (type != DPELEMENT_NOELEMENT) {
      std::string error;
      attributes.value = parseValueText(type, text, error);
      if (!attributes.value) {
        attributes.unreadable = true;
        sayUnreadable(directory_->nameOf(attributes.element), error);
      }
    }
  }
  attributes.invalid = reply.text() != "0";
  attributes.userBit1 = reply.text() == "1";
  attributes.userBit2 = reply.text() == "1";
  state.valueTimeMs = reply.integer();
  state.invalidTimeMs = reply.integer();
}

void RedisStore::onSnapshot(std::uint64_t number, ReplyCursor reply) {
  Snapshot* snapshot = findSnapshot(number);
  if (snapshot == nullptr) return;  // a call of an attempt that was begun anew
  if (reply.isError()) {
    serverError(reply.text());
    return;
  }
  const std::size_t count = reply.array() - 1;
  const std::uint64_t sequence = reply.unsignedInteger();
  if (snapshot->answered == 0) snapshot->firstSequence = sequence;
  snapshot->lastSequence = sequence;
  const std::size_t end = std::min(snapshot->answered + count, snapshot->states.size());
  for (; snapshot->answered < end; ++snapshot->answered)
    takeState(reply, snapshot->states[snapshot->answered]);
  if (snapshot->answered < snapshot->states.size()) return;
  if (snapshot->lastSequence == snapshot->firstSequence) {
    finishSnapshot(static_cast<std::size_t>(snapshot - snapshots_.data()));
    return;
  }
  RespWriter out(call(Tag::since, snapshot->number, "dp_since", 1));
  out.number(snapshot->firstSequence);
}

void RedisStore::onSince(std::uint64_t number, ReplyCursor reply) {
  Snapshot* snapshot = findSnapshot(number);
  if (snapshot == nullptr) return;
  if (reply.isError()) {
    const std::string_view error = reply.text();
    if (error.starts_with("TRIMMED")) {
      restartSnapshot(*snapshot);
    } else {
      serverError(error);
    }
    return;
  }
  const std::size_t items = reply.array();
  snapshot->lastSequence = reply.unsignedInteger();
  std::vector<std::size_t> byElement(snapshot->states.size());
  for (std::size_t i = 0; i < byElement.size(); ++i) byElement[i] = i;
  const auto elementAt = [&](std::size_t i) { return snapshot->states[i].attributes.element; };
  std::sort(byElement.begin(), byElement.end(),
            [&](std::size_t a, std::size_t b) { return elementAt(a) < elementAt(b); });
  for (std::size_t i = 1; i + 1 < items; i += 2) {
    ElementState state;
    state.attributes.element = directory_->intern(reply.text());
    takeState(reply, state);
    auto same = std::lower_bound(byElement.begin(), byElement.end(), state.attributes.element,
                                 [&](std::size_t at, ElementId element) { return elementAt(at) < element; });
    for (; same != byElement.end() && elementAt(*same) == state.attributes.element; ++same) {
      snapshot->states[*same] = state;
    }
  }
  finishSnapshot(static_cast<std::size_t>(snapshot - snapshots_.data()));
}

void RedisStore::finishSnapshot(std::size_t index) {
  Snapshot done = std::move(snapshots_[index]);
  snapshots_.erase(snapshots_.begin() + static_cast<std::ptrdiff_t>(index));
  called_ = true;
  listener_->snapshot(done.request, done.lastSequence, std::move(done.states));
}

void RedisStore::sayUnreadable(std::string_view name, const std::string& why) {
  if (const std::uint64_t times = unreadable_.count(1, now_); times > 0) {
    log::warn("store", "store {}: {} times something could not be read, last of {}: {}", address_.text, times,
              name, why);
  }
}

// ---- The change log
//
// The id of an entry is its sequence, and every change has one entry, so ids follow each other without a
// hole.

void RedisStore::askLog() {
  if (state_ != LinkState::up || logAsked_ || largeWaits_) return;
  RespWriter out(log_.command(static_cast<std::uint64_t>(Tag::log) << 56U));
  out.header(8);
  out.text("XREAD");
  out.text("COUNT");
  out.number(options_.logEntries);
  out.text("BLOCK");
  out.number(options_.logWait.count());
  out.text("STREAMS");
  out.text("dp:log");
  out.number(logPosition_);
  logAsked_ = true;
}

void RedisStore::lostChanges(std::string_view reason) {
  log::warn("store", "store {}: {} - reading everything again", address_.text, reason);
  called_ = true;
  listener_->gap(reason);
}

void RedisStore::onLog(ReplyCursor reply) {
  logAsked_ = false;
  if (reply.isError()) {
    serverError(reply.text());
    return;
  }
  if (reply.array() > 0) {
    reply.array();
    reply.skip();  // the name of the stream
    const std::size_t entries = reply.array();
    for (std::size_t i = 0; i < entries && state_ == LinkState::up && !largeWaits_; ++i) {
      reply.array();
      const auto sequence = numberOf<std::uint64_t>(reply.text());
      if (sequence != logPosition_ + 1) {
        lostChanges("changes " + std::to_string(logPosition_ + 1) + " to " + std::to_string(sequence - 1) +
                    " are no longer in the log");
      }
      logPosition_ = sequence;
      onLogEntry(sequence, reply);
    }
  }
  checkCaughtUp();
  askLog();
}

void RedisStore::onLogEntry(std::uint64_t sequence, ReplyCursor& reply) {
  const std::size_t fields = reply.array();
  if (fields < 2) return;
  const std::string_view kind = reply.text();
  const std::string_view head = reply.text();
  if (kind == "s") {
    onChangeEntry(sequence, head, fields - 2, reply);
  } else if (kind == "S") {
    for (std::size_t i = 2; i < fields; ++i) reply.skip();
    onLargeEntry(sequence, head);
  } else if (kind == "c" || kind == "x") {
    onCatalogueEntry(sequence, kind == "x", fields - 2, reply);
  } else {
    // The functions' version was checked, so somebody else wrote here; nothing is known of what it meant.
    for (std::size_t i = 2; i < fields; ++i) reply.skip();
    lostChanges("entry " + std::to_string(sequence) + " of the log is of no known kind");
  }
}

void RedisStore::onChangeEntry(std::uint64_t sequence, std::string_view head, std::size_t fields,
                               ReplyCursor& reply) {
  change_.elements.clear();
  for (std::size_t i = 0; i + 1 < fields; i += 2) {
    const std::string_view name = reply.text();
    takeWritten(name, reply.text());
  }
  tellChange(sequence, head);
}

/// What a change wrote to one element.
void RedisStore::takeWritten(std::string_view name, std::string_view text) {
  AttributeView view;
  if (!parseAttributeText(text, view)) {
    sayUnreadable(name, "what a change wrote to it is no text of attributes");
    return;
  }
  ElementAttributes& attributes = change_.elements.emplace_back();
  attributes.element = directory_->intern(name);
  attributes.mask = view.mask;
  attributes.invalid = view.invalid;
  attributes.userBit1 = view.userBit1;
  attributes.userBit2 = view.userBit2;
  if ((view.mask & attributeValue) == 0) return;
  const DpElementType type = directory_->typeOf(attributes.element);
  if (type == DPELEMENT_NOELEMENT) return;
  std::string error;
  attributes.value = parseValueText(type, view.value, error);
  if (!attributes.value) {
    attributes.unreadable = true;
    sayUnreadable(name, error);
  }
}

void RedisStore::tellChange(std::uint64_t sequence, std::string_view head) {
  change_.sequence = sequence;
  change_.timeMs = numberOf<std::int64_t>(head);
  called_ = true;
  listener_->changed(change_);
}

/// A change too large for one entry: what it wrote is fetched, and the log is not read on before it is here.
void RedisStore::onLargeEntry(std::uint64_t sequence, std::string_view head) {
  largeSequence_ = sequence;
  largeHead_ = head;
  largeWaits_ = true;
  RespWriter out(call(Tag::large, 0, "dp_large", 1));
  out.number(sequence);
}

void RedisStore::onLargeValues(ReplyCursor reply) {
  if (reply.isError()) {
    serverError(reply.text());
    return;
  }
  largeWaits_ = false;
  if (reply.isNil()) {
    lostChanges("change " + std::to_string(largeSequence_) + " is no longer in the log");
  } else {
    std::string_view packed = reply.text();
    std::string_view name;
    std::string_view text;
    change_.elements.clear();
    while (takeNetstring(packed, name) && takeNetstring(packed, text)) {
      takeWritten(name, text);
    }
    if (!packed.empty()) sayUnreadable("a large change", "change " + std::to_string(largeSequence_));
    tellChange(largeSequence_, largeHead_);
    change_ = Change();  // its room is not kept
  }
  checkCaughtUp();
  askLog();
}

/// Writes say from now on that they were made with the catalogue as of this sequence.
void RedisStore::catalogueKnown(std::uint64_t sequence) {
  catalogueSequence_ = sequence;
  writeFlags_ = "c" + std::to_string(sequence);
}

/// The listener has to know when nothing of an outage is left to be told. Of an element that was deleted and
/// defined again meanwhile the catalogue does not show it, so everything connected is read again.
void RedisStore::checkCaughtUp() {
  if (!catchingUp_ || largeWaits_ || state_ != LinkState::up || logPosition_ < catchUpTo_) return;
  catchingUp_ = false;
  called_ = true;
  if (std::exchange(catalogueSkipped_, false))
    listener_->gap("the catalogue changed while the link was down");
  listener_->caughtUp();
}

void RedisStore::onCatalogueEntry(std::uint64_t sequence, bool removed, std::size_t fields,
                                  ReplyCursor& reply) {
  for (std::size_t i = 0; i + 1 < fields; i += 2) {
    CatalogueEntry entry;
    entry.name = reply.text();
    const std::string_view text = reply.text();
    if (sequence <= catalogueSequence_) {
      catalogueSkipped_ = true;
      continue;
    }
    if (!removed && !parseCatalogueText(text, entry)) {
      sayUnreadable(entry.name, "its catalogue entry is no such text");
      continue;
    }
    called_ = true;
    listener_->catalogueChanged(std::move(entry));
  }
  if (sequence > catalogueSequence_) catalogueKnown(sequence);
}

}  // namespace pvss::redis
