#include "CkelSubscription.h"

#include <pvss/PVSSTime.h>
#include <pvss/TimeVar.h>

#include <algorithm>
#include <cstring>
#include <stdexcept>
#include <utility>

#include "KelApiManager.h"

namespace {

constexpr runtime::Notice<const char*> subscriptionCreated{"CkelSubscription",
                                                           "Created subscription to %s\n"};
constexpr runtime::Notice<const char*> subscriptionDestroyed{"CkelSubscription",
                                                             "Destroyed subscription to %s\n"};
constexpr runtime::Report<const char*> runtimeErrorThrown{"CkelSubscription", 112,
                                                          "Execption %s thrown in handler for pub\n"};
constexpr runtime::Report<const char*> exceptionThrown{"CkelSubscription", 124,
                                                       "Execption thrown in handler for pub %s\n"};

constexpr int noQuality = -1;
constexpr std::int64_t nsPerMs = 1'000'000;
constexpr std::int64_t msPerSecond = 1000;
constexpr std::size_t itemsPerMapping = 4;  // value, two user bits, invalid flag

/// Makes room ahead, on platforms whose list can.
template <typename List>
void makeRoom(List& list, std::size_t items) {
  if constexpr (requires { list.reserve(items); }) {
    list.reserve(items);
  }
}

}  // namespace

CkelSubscription::CkelSubscription(const CharString& pubName)
    : subscription(nullptr),
      publication(pubName),
      connectedToPublication(false),
      mustGetLastPubValueFlag(false),
      lock(SString(publication) + "Lock"),
      recordPassedUnmapped(false) {
  subscription = KelApiManager::kelFactory->createSubscription(publication, this);
  runtime::inform(subscriptionCreated, publication);
}

CkelSubscription::~CkelSubscription() {
  KelApiManager::kelFactory->releaseSubscription(subscription);
  // No listener operation runs from here on.
  while (!tagMappings.empty()) {
    delete tagMappings.back();
    tagMappings.pop_back();
  }
  runtime::inform(subscriptionDestroyed, publication);
}

// --- Kel threads

void CkelSubscription::handleMessage(KelSubscription* /*handle*/, KelData& data) {
  try {
    takeRecord(data);
  } catch (...) {
    reportCaughtException();
  }
}

void CkelSubscription::disconnected(KelSubscription* /*handle*/, char* /*reason*/) {
  connectedToPublication = false;
  try {
    updateValidityOfMappedDPEs();
  } catch (...) {
    reportCaughtException();
  }
}

void CkelSubscription::connected(KelSubscription* /*handle*/) {
  connectedToPublication = true;
  try {
    updateValidityOfMappedDPEs();
  } catch (...) {
    reportCaughtException();
  }
}

void CkelSubscription::handleException(KelSubscription* /*handle*/, KelException& /*exception*/) {}

void CkelSubscription::reportCaughtException() const {
  try {
    throw;
  } catch (const std::runtime_error& error) {
    runtime::report(runtimeErrorThrown, error.what());
  } catch (...) {
    runtime::report(exceptionThrown, publication);
  }
}

void CkelSubscription::takeRecord(KelData& data) {
  mustGetLastPubValueFlag = false;
  if (data.getQuality() == noQuality) {
    return;
  }
  auto list = std::make_unique<DpIdValueList>();
  {
    const SmutexGuard guard(lock);
    recordPassedUnmapped = recordPassedUnmapped || tagMappings.empty();
    makeRoom(*list, itemsPerMapping * tagMappings.size());
    for (CkelDataMapping* const mapping : tagMappings) {
      mapping->addValueToList(data, *list);
    }
    for (CkelDataMapping* const mapping : tagMappings) {
      mapping->addValueValidityStatusToList(*list);
    }
  }
  sendListOfUpdatesToPVSS(std::move(list), data.getTimestamp().timeNanoseconds / nsPerMs);
}

void CkelSubscription::updateValidityOfMappedDPEs() {
  auto list = std::make_unique<DpIdValueList>();
  {
    const SmutexGuard guard(lock);
    for (CkelDataMapping* const mapping : tagMappings) {
      mapping->addValueValidityStatusToList(*list);
    }
  }
  const TimeVar now;
  sendListOfUpdatesToPVSS(std::move(list), std::int64_t{now.getSeconds()} * msPerSecond + now.getMilli());
}

void CkelSubscription::sendListOfUpdatesToPVSS(std::unique_ptr<DpIdValueList> list, std::int64_t ms) const {
  PVSSTime time(ms / msPerSecond, 0);
  time.setMilli(ms % msPerSecond);  // carries a negative remainder into the seconds
  auto stamp = std::make_unique<TimeVar>(time);
  KelApiManager::sendListOfUpdatesToPVSS(list.release(), stamp.release());
}

// --- main thread

void CkelSubscription::createMapping(const CharString& tag, const CharString& fullAddress, CdpeWrapper& dpe) {
  const SmutexGuard guard(lock);
  auto mapping = std::make_unique<CkelDataMapping>(dpe, tag, fullAddress, *this);
  tagMappings.push_back(mapping.get());
  static_cast<void>(mapping.release());  // the vector's now
  if (std::exchange(recordPassedUnmapped, false)) {
    markForGetLastPubValue();
  }
}

void CkelSubscription::destroyMapping(const CdpeWrapper& dpe) {
  std::unique_ptr<CkelDataMapping>
      removed;  // destroyed after the lock is released: no Kel thread sees it then
  {
    const SmutexGuard guard(lock);
    const auto found = std::find_if(tagMappings.begin(), tagMappings.end(), [&dpe](const auto* mapping) {
      return dpe.getName() == mapping->getDPEName();
    });
    if (found != tagMappings.end()) {
      removed.reset(*found);
      tagMappings.erase(found);
    }
  }
}

int CkelSubscription::getNumberOfMappings() const {
  const SmutexGuard guard(lock);
  return static_cast<int>(tagMappings.size());
}
