// The contest for publication names: the part of Outbox that decides who may publish.

#include <algorithm>
#include <optional>
#include <utility>

#include "session/Outbox.h"
#include "session/OutboxName.h"
#include "session/Transition.h"

namespace kel {

const char* stateName(PublicationState state) {
  switch (state) {
    case PublicationState::unclaimed:
      return "unclaimed";
    case PublicationState::claiming:
      return "claiming";
    case PublicationState::owner:
      return "owner";
    case PublicationState::waiting:
      return "waiting";
  }
  return "?";
}

void Outbox::groupKnown(const std::vector<std::string>& earlierUnderName) {
  online_ = true;
  earlierUnderName_ = {earlierUnderName.begin(), earlierUnderName.end()};
  std::vector<Name*> names;
  for (auto& [coded, name] : names_) names.push_back(name.get());
  std::sort(names.begin(), names.end(), [](const Name* a, const Name* b) { return a->coded < b->coded; });
  for (Name* name : names) claim(*name, "the group is known");
}

void Outbox::claim(Name& name, std::string_view cause) {
  name.rival.clear();
  name.rivalIsOwner = false;
  if (!earlierUnderName_.empty()) {
    lose(name, *earlierUnderName_.begin(), true, "the publisher's name is taken");
    return;
  }
  transition(name.state, PublicationState::claiming, "publication " + name.publication, cause);
  name.attempt = nextAttempt_++;
  if (name.claimSubscribed) {
    publishClaim(name, false);
  } else {
    // The claim follows when the subscription stands: its echo must not be missed.
    name.claimSubscribed = true;
    ports_.subscribes.request(ports_.topics.claim(name.coded), 1);
  }
}

void Outbox::subscribed(std::string_view topic, std::string_view failure) {
  const auto parsed = ports_.topics.parse(topic);
  if (!parsed || parsed->kind != TopicKind::claim) return;
  std::string error;
  const auto coded = encodeTopicName(parsed->name, error);
  const auto at = coded ? names_.find(*coded) : names_.end();
  if (at == names_.end() || at->second->state != PublicationState::claiming) return;
  if (failure.empty()) {
    publishClaim(*at->second, false);
    return;
  }
  claimRefused(*at->second, refusedClaim(*at->second, failure),
               "to read " + ports_.topics.claim(at->second->coded));
}

std::string Outbox::refusedClaim(const Name& name, std::string_view failure) {
  return "the broker refused the claim on publication " + name.publication + ": " + std::string(failure);
}

void Outbox::claimRefused(Name& name, const std::string& text, std::string right) {
  const bool news = claimRefusals_.refused(name.coded, text, std::move(right), ports_.now);
  if (news && !name.handles.empty()) tell(*name.handles.front(), text);
}

void Outbox::askAgain() {
  const auto pause = refusalPause(ports_.transport);
  for (auto& [coded, name] : names_) {
    if (name->state != PublicationState::claiming || !name->claimTaken || !online_ ||
        ports_.now - name->claimTakenAt < pause) {
      continue;
    }
    name->claimTaken = false;
    claimRefused(*name, refusedClaim(*name, "it was taken and does not come back"),
                 "to read " + ports_.topics.claim(coded));
  }
  for (const std::string& coded : claimRefusals_.due(ports_.now, pause)) {
    const auto at = names_.find(coded);
    if (at == names_.end() || at->second->state != PublicationState::claiming) continue;
    // The claim follows the subscription, and has the number that it had.
    ports_.subscribes.request(ports_.topics.claim(coded), 1);
  }
  for (const std::string& coded : recordRefusals_.due(ports_.now, pause)) {
    const auto at = names_.find(coded);
    if (at != names_.end() && at->second->state == PublicationState::owner) activate(*at->second, true);
  }
}

void Outbox::publishClaim(Name& name, bool owner) {
  name.claimTaken = false;
  const ClaimPayload claim{ports_.self, owner, name.attempt};
  const std::string payload = encodeClaim(claim, ports_.wallClockNanoseconds() / 1'000'000);
  claimTokens_[publishControl(ports_.topics.claim(name.coded), payload)] = name.coded;
}

void Outbox::claimMessage(std::string_view publication, std::string_view payload, bool retained) {
  std::string error;
  const auto coded = encodeTopicName(publication, error);
  const auto at = coded ? names_.find(*coded) : names_.end();
  if (at == names_.end()) return;
  Name& name = *at->second;
  name.unheard.reset();
  if (payload.empty()) {
    if (name.state == PublicationState::waiting && earlierUnderName_.empty()) {
      claim(name, "the owner has withdrawn its claim");
    } else if (name.state == PublicationState::claiming) {
      name.rival.clear();
    } else if (name.state == PublicationState::owner) {
      publishClaim(name, true);
    }
    return;
  }
  const auto claim = decodeClaim(payload);
  if (!claim) {
    log(LogLevel::debug, "what is claimed for publication " + name.publication + " is not readable");
  } else if (claim->publisher.incarnation == ports_.self.incarnation) {
    if (!retained && name.state == PublicationState::claiming && claim->attempt == name.attempt &&
        !claim->owner) {
      decide(name);
    }
  } else if (ports_.peers.known(claim->publisher.text())) {
    otherClaim(name, *claim);
  } else if (!retained) {
    // Made up, or of somebody who was only not heard of: then it shows itself when it is asked.
    name.unheard = *claim;
  }
}

void Outbox::otherClaim(Name& name, const ClaimPayload& claim) {
  const std::string rival = claim.publisher.text();
  switch (name.state) {
    case PublicationState::unclaimed:
      break;
    case PublicationState::claiming:
      name.rival = rival;
      name.rivalIsOwner = claim.owner;
      break;
    case PublicationState::owner:
      // Two owners can only come from each having missed the other for a while; one of them must give way,
      // and both must agree on which.
      if (claim.owner && claim.publisher.incarnation < ports_.self.incarnation) {
        lose(name, rival, true, "another owner goes before");
      } else {
        publishClaim(name, true);
      }
      break;
    case PublicationState::waiting:
      if (!earlierUnderName_.empty()) break;
      if (claim.owner || !name.rivalIsOwner || !ports_.peers.known(name.rival)) {
        name.rival = rival;
        name.rivalIsOwner = claim.owner;
        tellLoss(name);
      }
      break;
  }
}

void Outbox::decide(Name& name) {
  claimRefusals_.granted(name.coded);
  if (!name.rival.empty() && ports_.peers.known(name.rival)) {
    lose(name, std::string(name.rival), name.rivalIsOwner, "an earlier claim is live");
  } else {
    becomeOwner(name);
  }
}

void Outbox::becomeOwner(Name& name) {
  transition(name.state, PublicationState::owner, "publication " + name.publication, "own claim came first");
  name.rival.clear();
  if (std::exchange(name.lossTold, false))
    log(LogLevel::info, "publication " + name.publication + " is taken over");
  if (std::exchange(name.mustClose, false)) {
    if (name.handles.empty()) {
      publishClosed(name);
      removeName(name);
      return;
    }
    publishControl(ports_.topics.data(name.coded), {});
  }
  activate(name, true);
}

void Outbox::lose(Name& name, std::string_view winner, bool confirmed, std::string_view cause) {
  if (setWaiting(name, winner, confirmed, cause)) tellLoss(name);
}

/// False when the name was only here to be closed, and is no more.
bool Outbox::setWaiting(Name& name, std::string_view winner, bool confirmed, std::string_view cause) {
  transition(name.state, PublicationState::waiting, "publication " + name.publication, cause);
  name.rival = winner;
  name.rivalIsOwner = confirmed;
  name.waitingSince = ports_.now;
  if (name.handles.empty()) {
    removeName(name);  // destroyed, and somebody else's now
    return false;
  }
  name.mustClose = false;
  const auto& active = name.handles.front();
  queue_.setReady(active, false);
  queue_.trim(*active, 1, [&](const OutgoingRecord& record) { superseded(*name.book, record); });
  return true;
}

void Outbox::tellLoss(Name& name) {
  // A rival that is only known from what the broker had kept may be gone long since: wait for its sign of
  // life.
  if (name.lossTold || !ports_.peers.alive(name.rival)) return;
  name.lossTold = true;
  const auto rival = PublisherId::parse(name.rival);
  const bool sameName = rival && rival->name == ports_.self.name;
  const std::string text = "publication " + name.publication + " waits: " +
                           (sameName ? "another process publishes under the name " : "it is published by ") +
                           (rival ? rival->name : name.rival);
  log(LogLevel::warn, text);
  tell(*name.handles.front(), text);
}

void Outbox::peerAlive(std::string_view peer) {
  std::vector<Name*> claimed;
  for (auto& [coded, name] : names_) {
    if (name->state == PublicationState::waiting && name->rival == peer) tellLoss(*name);
    if (name->unheard && name->unheard->publisher.text() == peer) claimed.push_back(name.get());
  }
  for (Name* name : claimed) {
    const ClaimPayload claim = *std::exchange(name->unheard, std::nullopt);
    otherClaim(*name, claim);
  }
}

void Outbox::peerGone(std::string_view peer) {
  const auto under = earlierUnderName_.find(peer);
  const bool freesName = under != earlierUnderName_.end() && earlierUnderName_.size() == 1;
  if (under != earlierUnderName_.end()) earlierUnderName_.erase(under);
  std::vector<Name*> again;
  for (auto& [coded, name] : names_) {
    const bool wasRival = name->rival == peer;
    if (name->state == PublicationState::claiming && wasRival) name->rival.clear();
    if (name->state == PublicationState::waiting && (wasRival || freesName)) again.push_back(name.get());
  }
  std::sort(again.begin(), again.end(), [](const Name* a, const Name* b) { return a->coded < b->coded; });
  for (Name* name : again) claim(*name, "who had it is gone");
}

void Outbox::tick() {
  askAgain();
  watchQuality();
  if (!online_ || !earlierUnderName_.empty()) return;
  std::vector<Name*> again;
  for (auto& [coded, name] : names_) {
    // A rival that never said that it owns the name may itself be waiting; an owner answers the next claim.
    // One that is not confirmed to live has the time of its presence.
    if (name->state == PublicationState::waiting && !name->rivalIsOwner &&
        ports_.peers.state(name->rival) != PeerState::unconfirmed &&
        ports_.now - name->waitingSince >= ports_.transport.keepAlive()) {
      again.push_back(name.get());
    }
  }
  for (Name* name : again) claim(*name, "nobody said that he owns it");
}

}  // namespace kel
