#include "KELClientManager.h"

#include <cstring>
#include <memory>
#include <string>
#include <utility>

namespace {

constexpr runtime::Report<const char*> dpeNotValid{"KELClientManager", 114,
                                                   "DPE %s is not a valid DPE - ignoring\n"};
constexpr runtime::Invariant subscriptionKnown{"KELClientManager", 23, "pubIt != kelPubsSubscribedTo.end()"};
constexpr runtime::Invariant mappedBefore{"KELClientManager", 71, "dpe.getMapping() != __null"};
constexpr runtime::Invariant unmappedAfter{"KELClientManager", 74, "dpe.getMapping() == __null"};
constexpr runtime::Invariant clientMapped{"KELClientManager", 119, "clientDp.getMapping() != __null"};

}  // namespace

CkelClientManager::CkelClientManager() : configLock("SubConfigLock"), entranceCount(0), updateRuns(false) {}

CkelClientManager::~CkelClientManager() {
  for (const auto& [name, subscription] : kelPubsSubscribedTo) {
    delete subscription;
  }
  for (const auto& [name, wrapper] : dpeClients) {
    delete wrapper;
  }
}

void CkelClientManager::updateConfig(const DynVar* list) {
  std::vector<CharString> names = textsOf(*list);
  if (updateRuns) {
    waitingNames = std::move(names);
    return;
  }
  updateRuns = true;
  applyConfig(names);
  while (waitingNames) {
    const std::vector<CharString> next = *std::exchange(waitingNames, std::nullopt);
    applyConfig(next);
  }
  updateRuns = false;
}

void CkelClientManager::applyConfig(const std::vector<CharString>& names) {
  configLock.lock();  // an exception leaves the update unfinished, and the lock held
  ++entranceCount;
  for (const CharString& name : names) {
    applyName(name);
  }
  sweep();
  requestAnySubscriptionResends();
  --entranceCount;
  configLock.release();
}

void CkelClientManager::applyName(const CharString& name) {
  if (const auto known = dpeClients.find(&name); known != dpeClients.end()) {
    CdpeWrapper& clientDp = *known->second;
    runtime::require(clientDp.getMapping() != nullptr, clientMapped);
    // What changed is shown to Kel threads when it is decided what becomes of the mapping: until then a
    // record is taken as before.
    clientDp.holdShownState();
    if (!clientDp.getMapping()->dpeSubscriptionHasChanged()) {
      clientDp.showState();
      clientDp.mark();
    } else if (clientDp.isValid()) {
      unsubscribeDPE(clientDp);
      clientDp.showState();
      subscribeDPE(clientDp);
      clientDp.mark();
    } else {
      clientDp.clearMark();
    }
    return;
  }
  auto created = std::make_unique<CdpeWrapper>(name);
  CdpeWrapper& wrapper = *created;
  dpeClients.emplace(&wrapper.getName(), created.get());
  static_cast<void>(created.release());  // the map's now
  if (wrapper.revalidateDPE()) {
    subscribeDPE(wrapper);
    wrapper.mark();
  } else {
    wrapper.clearMark();
    runtime::report(dpeNotValid, name);
  }
}

bool CkelClientManager::subscribeDPE(CdpeWrapper& dpe) {
  const CharString address = dpe.getKelAddress();
  const std::string text = static_cast<const char*>(address);
  const std::size_t delimiter = text.find(pubNameDelimiter[0]);
  const CharString pubName = text.substr(0, delimiter).c_str();
  const CharString tag = delimiter == std::string::npos ? "" : text.substr(delimiter + 1).c_str();

  const auto found = kelPubsSubscribedTo.find(&pubName);
  const bool existed = found != kelPubsSubscribedTo.end();
  CkelSubscription* const subscription = existed ? found->second : createKelSubscription(pubName);
  subscription->createMapping(tag, address, dpe);
  if (existed) {
    subscription->markForGetLastPubValue();
  }
  return true;
}

void CkelClientManager::unsubscribeDPE(const CdpeWrapper& dpe) {
  runtime::require(dpe.getMapping() != nullptr, mappedBefore);
  const auto owner = kelPubsSubscribedTo.find(&dpe.getMapping()->getSubscription().getPubName());
  if (owner != kelPubsSubscribedTo.end()) {
    owner->second->destroyMapping(dpe);
  }
  runtime::require(dpe.getMapping() == nullptr, unmappedAfter);
}

CkelSubscription* CkelClientManager::createKelSubscription(const CharString& pubName) {
  auto created = std::make_unique<CkelSubscription>(pubName);
  kelPubsSubscribedTo.emplace(&created->getPubName(), created.get());
  return created.release();  // the map's now
}

void CkelClientManager::destroySubscription(const CharString& pubName) {
  const auto pubIt = kelPubsSubscribedTo.find(&pubName);
  runtime::require(pubIt != kelPubsSubscribedTo.end(), subscriptionKnown);
  const std::unique_ptr<CkelSubscription> destroyed(pubIt->second);
  kelPubsSubscribedTo.erase(pubIt);
}

void CkelClientManager::sweep() {
  for (auto next = dpeClients.begin(); next != dpeClients.end();) {
    const auto current = next++;
    CdpeWrapper* const wrapper = current->second;
    if (wrapper->isMarked()) {
      wrapper->clearMark();
      continue;
    }
    dpeClients.erase(current);
    if (wrapper->getMapping() != nullptr) {
      unsubscribeDPE(*wrapper);
    }
    delete wrapper;
  }
  for (auto next = kelPubsSubscribedTo.begin(); next != kelPubsSubscribedTo.end();) {
    const CkelSubscription& subscription = *(next++)->second;
    if (subscription.getNumberOfMappings() == 0) {
      destroySubscription(subscription.getPubName());
    }
  }
}

void CkelClientManager::requestAnySubscriptionResends() {
  for (const auto& [name, subscription] : kelPubsSubscribedTo) {
    if (!subscription->mustGetLastPubValue()) {
      continue;
    }
    if (subscription->isConnectedToPublication()) {
      subscription->requestLastPublishedValue();
    }
    subscription->clearGetLastPubValueMark();
  }
}
