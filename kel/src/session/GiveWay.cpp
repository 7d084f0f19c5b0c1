// Who publishes nothing but bad records gives way to another process run of its name that has good ones: the
// parts of Outbox and Session that know when, and how.
//
// Its presence is withdrawn and, when that has come back, published again. So all members take it for one
// that came after the others of its name.

#include <algorithm>
#include <utility>

#include "session/Outbox.h"
#include "session/OutboxName.h"
#include "session/Session.h"

namespace kel {

std::int64_t Outbox::publishing() const {
  return std::count_if(names_.begin(), names_.end(), [](const auto& entry) {
    const auto& handles = entry.second->handles;
    return !handles.empty() && handles.front()->good;
  });
}

void Outbox::watchQuality() {
  bool anyBad = false;
  for (const auto& [coded, name] : names_) {
    if (name->handles.empty()) continue;
    const PublicationHandle& active = *name->handles.front();
    if (active.good) {
      badSince_.reset();
      return;
    }
    // One of which nothing was said yet is neither.
    anyBad = anyBad || active.lastSequence != 0;
  }
  if (!anyBad) {
    badSince_.reset();
  } else if (!badSince_) {
    badSince_ = ports_.now;
  }
}

void Outbox::forgive(std::chrono::nanoseconds pause) {
  if (badSince_) *badSince_ += std::chrono::duration_cast<PeerTable::Time::duration>(pause);
}

bool Outbox::keepsNamesForNothing() const {
  return badSince_ && ports_.now - *badSince_ > badPatience &&
         std::any_of(names_.begin(), names_.end(),
                     [](const auto& entry) { return entry.second->state == PublicationState::owner; });
}

void Outbox::giveWay(const std::vector<std::string>& earlierUnderName) {
  earlierUnderName_ = {earlierUnderName.begin(), earlierUnderName.end()};
  std::vector<Name*> names;
  for (auto& [coded, name] : names_) names.push_back(name.get());
  std::sort(names.begin(), names.end(), [](const Name* a, const Name* b) { return a->coded < b->coded; });
  for (Name* name : names) {
    const std::string topic = ports_.topics.claim(name->coded);
    // Or who comes next would find it claimed by somebody alive.
    if (name->state == PublicationState::owner || name->state == PublicationState::claiming)
      publishControl(topic, {});
    name->unheard.reset();
    if (!setWaiting(*name, earlierUnderName.front(), true, "gave way")) continue;
    // What is claimed meanwhile is asked for when its turn comes again.
    name->claimTaken = false;
    if (std::exchange(name->claimSubscribed, false)) ports_.subscribes.cancel(topic);
  }
}

/// `peer`, of this publisher's name, has shown just now that it has good records.
void Session::giveWayTo(const std::string& peer) {
  if (!peers_.alive(peer) || !outbox_.keepsNamesForNothing()) return;
  log(LogLevel::info,
      "all publications of this process are bad, and another one publishes good records under the name " +
          ports_.self.name + " (" + peer + "): that one may publish, and this one waits");
  ++gaveWay_;
  // Claims first: whoever hears of the withdrawal finds the names free.
  outbox_.giveWay(peers_.named(ports_.self.name));
  sendPresence({}, {}, presenceToken);
}

/// Whoever could publish instead says soonest how it stands when it is asked.
void Session::askForSuccessor() {
  if (!outbox_.keepsNamesForNothing()) {
    successorSought_ = false;
  } else if (!successorSought_ && !peers_.named(ports_.self.name).empty()) {
    successorSought_ = true;
    wantProbe();
  }
}

}  // namespace kel
