#include "store/memory/MemoryStore.h"

#include <algorithm>
#include <bit>
#include <ctime>
#include <utility>

namespace pvss {

MemoryStore::MemoryStore(std::shared_ptr<MemoryDatabase> database) : database_(std::move(database)) {}

MemoryStore::~MemoryStore() {
  database_->attached = false;
  database_->events.clear();
}

void MemoryStore::start(StoreListener& listener, ElementDirectory& directory,
                        const ManagerIdentity& identity) {
  listener_ = &listener;
  directory_ = &directory;
  identity_ = identity;
  state_ = State::connecting;
}

bool MemoryStore::poll(std::chrono::microseconds atMost) {
  called_ = false;
  if (state_ == State::up && !database_->leaseHolder.empty()) {
    fence(database_->leaseHolder);
  }
  if (state_ == State::up && !database_->linkUp) {
    goDown(State::connecting, "the link was taken away");
  }
  if (state_ != State::up && state_ != State::stopped && database_->linkUp && !called_) {
    comeUp();
  }
  if (state_ == State::up) {
    while (!snapshots_.empty() && !database_->holdSnapshots) {
      Snapshot snapshot = std::move(snapshots_.front());
      snapshots_.pop_front();
      called_ = true;
      listener_->snapshot(snapshot.request, snapshot.sequence, std::move(snapshot.states));
    }
    while (!database_->events.empty()) {
      MemoryDatabase::Event event = std::move(database_->events.front());
      database_->events.pop_front();
      hear(std::move(event));
    }
    if (catchingUp_) {
      catchingUp_ = false;
      listener_->caughtUp();
    }
    while (!writes_.empty() && !database_->holdWrites) {
      if (database_->fenceNext) {
        database_->fenceNext = false;
        fence("another manager");
        break;
      }
      Waiting waiting = std::move(writes_.front());
      writes_.pop_front();
      apply(std::move(waiting));
    }
  }
  if (!called_ && atMost.count() > 0) {
    const timespec pause{static_cast<time_t>(atMost.count() / 1000000),
                         static_cast<long>(atMost.count() % 1000000) * 1000};
    ::nanosleep(&pause, nullptr);  // nothing can come before the caller goes on, a signal excepted
  }
  return called_;
}

void MemoryStore::comeUp() {
  if (!database_->leaseHolder.empty()) {
    if (state_ != State::leaseTaken) {
      state_ = State::leaseTaken;
      called_ = true;
      listener_->lease(false, database_->leaseHolder);
    }
    return;
  }
  if (!database_->attached) {
    database_->attached = true;
    database_->events.clear();
  }
  std::vector<CatalogueEntry> entries;
  entries.reserve(database_->size());
  for (std::size_t index = 0; index < database_->size(); ++index) {
    const MemoryDatabase::Element& element = database_->at(static_cast<MemoryDatabase::Index>(index));
    if (element.entry.type != DPELEMENT_NOELEMENT) {
      entries.push_back(element.entry);
    }
  }
  StoreGreeting greeting;
  greeting.address = "memory:";
  greeting.runId = database_->runId;
  const MemoryDatabase::Writer known = database_->writer(identity_.writer);
  greeting.lastClientSequence = known.lastClientSequence;
  greeting.settledAttributes = known.settledAttributes;
  greeting.logSequence = database_->sequence();
  state_ = State::up;
  catalogueSequence_ = database_->sequence();
  catchingUp_ = true;
  called_ = true;
  listener_->lease(true, identity_.writer);
  listener_->catalogueLoaded(std::move(entries));
  listener_->storeUp(greeting);
}

void MemoryStore::goDown(State next, std::string_view reason) {
  state_ = next;
  writes_.clear();
  snapshots_.clear();
  called_ = true;
  listener_->storeDown(reason);
}

void MemoryStore::fence(const std::string& holder) {
  std::deque<Waiting> writes;
  writes.swap(writes_);
  for (const Waiting& waiting : writes) {
    listener_->confirmed(waiting.batch.clientSequence, WriteOutcome::fenced, holder, {});
  }
  listener_->lease(false, holder);
  goDown(State::leaseTaken, "the manager number was taken");
}

MemoryDatabase::Index MemoryStore::indexOf(ElementId element) {
  if (element >= indexes_.size()) {
    indexes_.resize(element + element / 2 + 64, MemoryDatabase::none);
  }
  MemoryDatabase::Index& index = indexes_[element];
  if (index == MemoryDatabase::none) {
    index = database_->find(directory_->nameOf(element));
  }
  return index;
}

ElementId MemoryStore::elementOf(MemoryDatabase::Index index) {
  if (index >= elements_.size()) {
    elements_.resize(database_->size(), 0);
  }
  ElementId& element = elements_[index];
  if (element == 0) {
    element = directory_->intern(database_->at(index).entry.name);
  }
  return element;
}

void MemoryStore::hear(MemoryDatabase::Event event) {
  called_ = true;
  if (auto* const defined = std::get_if<MemoryDatabase::Defined>(&event)) {
    catalogueSequence_ = std::max(catalogueSequence_, defined->sequence);
    listener_->catalogueChanged(std::move(defined->entry));
  } else if (auto* const foreign = std::get_if<MemoryDatabase::ForeignChange>(&event)) {
    change_.sequence = foreign->sequence;
    change_.timeMs = foreign->timeMs;
    change_.elements = std::move(foreign->elements);
    for (ElementAttributes& attributes : change_.elements) {
      attributes.element = elementOf(attributes.element);
    }
    listener_->changed(change_);
  } else {
    listener_->gap("changes were withheld");
  }
}

void MemoryStore::apply(Waiting waiting) {
  WriteBatch& batch = waiting.batch;
  MemoryDatabase::Writer known = database_->writer(identity_.writer);
  if (batch.clientSequence <= known.lastClientSequence) {
    called_ = true;
    listener_->confirmed(batch.clientSequence, WriteOutcome::duplicate, {}, {});
    return;
  }
  // By database index in scratch_, by element id in the change that the manager hears of.
  scratch_.clear();
  std::string missing;
  std::vector<std::uint32_t> leftOut;
  bool skipped = false;
  for (const ElementAttributes& attributes : batch.elements) {
    if (!batch.restore) {
      known.settledAttributes += static_cast<std::uint64_t>(std::popcount(attributes.mask));
    }
    const MemoryDatabase::Index index = indexOf(attributes.element);
    if (index == MemoryDatabase::none || database_->at(index).entry.type == DPELEMENT_NOELEMENT) {
      missing += (missing.empty() ? "no such element: " : ", ") + directory_->nameOf(attributes.element);
      leftOut.push_back(static_cast<std::uint32_t>(&attributes - batch.elements.data()));
      skipped = true;
    } else if (database_->at(index).movedAt > waiting.catalogue) {
      missing += (missing.empty() ? "another type or address since: " : ", ") +
                 directory_->nameOf(attributes.element);
      leftOut.push_back(static_cast<std::uint32_t>(&attributes - batch.elements.data()));
      skipped = true;
    } else {
      const std::uint8_t newer = batch.restore ? database_->writtenSinceLoss(index) : std::uint8_t{0};
      skipped = skipped || (attributes.mask & newer) != 0;
      if ((attributes.mask & ~newer) != 0) {
        scratch_.push_back(attributes);
        scratch_.back().element = index;
        scratch_.back().mask = static_cast<std::uint8_t>(attributes.mask & ~newer);
      }
    }
  }
  if (!scratch_.empty()) {
    change_.sequence = database_->apply(batch.timeMs, scratch_);
    change_.timeMs = batch.timeMs;
    if (skipped) {
      change_.elements = scratch_;
      for (ElementAttributes& attributes : change_.elements) {
        attributes.element = elementOf(attributes.element);
      }
    } else {
      change_.elements.swap(batch.elements);
    }
  }
  known.lastClientSequence = batch.clientSequence;
  database_->setWriter(identity_.writer, known);
  called_ = true;
  if (!scratch_.empty()) {
    listener_->changed(change_);
  }
  if (!database_->holdConfirmations) {
    const bool refused = scratch_.empty() && !missing.empty();
    listener_->confirmed(batch.clientSequence, refused ? WriteOutcome::refused : WriteOutcome::applied,
                         missing, leftOut);
  }
}

bool MemoryStore::write(const WriteBatch& batch) {
  if (state_ != State::up || (database_->window != 0 && writes_.size() >= database_->window)) {
    return false;
  }
  if (database_->failLinkInNextWrite) {
    database_->failLinkInNextWrite = false;
    goDown(State::connecting, "the link failed under a write");
    return true;
  }
  writes_.push_back({batch, catalogueSequence_});
  return true;
}

void MemoryStore::readSnapshot(std::uint64_t request, const std::vector<ElementId>& elements) {
  if (state_ != State::up) {
    return;
  }
  Snapshot snapshot;
  snapshot.request = request;
  snapshot.sequence = database_->sequence();
  snapshot.states.reserve(elements.size());
  for (const ElementId element : elements) {
    const MemoryDatabase::Index index = indexOf(element);
    ElementState state;
    if (index != MemoryDatabase::none && database_->at(index).entry.type != DPELEMENT_NOELEMENT) {
      state = database_->at(index).state;
    }
    state.attributes.element = element;
    snapshot.states.push_back(std::move(state));
  }
  snapshots_.push_back(std::move(snapshot));
}

void MemoryStore::beat(const ManagerBeat& beat) {
  database_->lastBeat = beat;
}

}  // namespace pvss
