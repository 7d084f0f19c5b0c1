#include "KelApiManager.h"

#include <kel/KelException.h>
#include <pvss/Resources.h>

#include <csignal>

#include "KelApiResources.h"
#include "kelManager.h"
#include "kelPubGroup.h"

namespace {

constexpr runtime::Report<const char*> clientSourceUnknown{"KelApiManager", 72,
                                                           "Can not get id for client Source %s\n"};
constexpr runtime::Report<const char*> pubSourceUnknown{"KelApiManager", 87,
                                                        "Can not get id for pub config Source %s\n"};
constexpr runtime::Invariant queueDrained{"KelApiManager", 106, "dpeUpdateQueue.size() == 0"};

constexpr unsigned char connectFlags = 3;
constexpr unsigned int setFlags = 1;
constexpr long loopWaitUs = 1000;

/// Lets the platform work for at most the time given.
void dispatchFor(long sec, long usec) {
  Manager::dispatch(sec, usec);
}

}  // namespace

KelFactory* KelApiManager::kelFactory = nullptr;
std::atomic<PVSSboolean> KelApiManager::doExit{PVSS_FALSE};
SMutex KelApiManager::dpeUpdateQueueLock("dpeUpdateQueueLock");
std::deque<const CpvssUpdate*> KelApiManager::dpeUpdateQueue;

KelApiManager::KelApiManager() : Manager(ManagerIdentifier(0, API_MAN, Resources::ownManId.manNum, 0)) {}

KelApiManager::~KelApiManager() {
  gdelayedPubThread.stopInOrder();
}

void KelApiManager::run() {
  connectToData(connectFlags, nullptr, 0);
  while (managerState == STATE_INIT) {
    dispatchFor(1, 0);
  }
  connectToEvent(0);

  if (kelFactory == nullptr) {
    try {
      kelFactory = Kel::create(KelApiResources::publisherName);
    } catch (const KelException&) {
      // An address or a name that the Kel library cannot take, and has said so: no retry mends it.
      Manager::exit(2);
    }
  }

  ConfigListChangeListener clientListListener(clientManager);
  if (KelApiResources::clientSourceName != "") {
    DpIdentifier id;
    if (getId(KelApiResources::clientSourceName, id)) {
      dpConnect(id, eventId, &clientListListener, 0);
    } else {
      runtime::report(clientSourceUnknown, KelApiResources::clientSourceName);
    }
  }

  ConfigListChangeListener pubListListener(publicationManager);
  if (KelApiResources::pubSourceName != "") {
    DpIdentifier id;
    if (!getId(KelApiResources::pubSourceName, id)) {
      runtime::report(pubSourceUnknown, KelApiResources::pubSourceName);
    }
    dpConnect(id, eventId, &pubListListener, 0);  // also with the empty identifier of a failed look-up
  }

  while (!doExit) {
    writeQueuedUpdates();
    dispatchFor(0, loopWaitUs);
  }
}

void KelApiManager::writeQueuedUpdates() {
  const SmutexGuard guard(dpeUpdateQueueLock);
  while (!dpeUpdateQueue.empty()) {
    const std::unique_ptr<const CpvssUpdate> update(dpeUpdateQueue.front());
    dpeUpdateQueue.pop_front();
    dpSetTimed(update->getTime(), update->getList(), eventId, nullptr, setFlags);
  }
  runtime::require(dpeUpdateQueue.empty(), queueDrained);
}

void KelApiManager::sendListOfUpdatesToPVSS(const DpIdValueList* list, const TimeVar* time) {
  const SmutexGuard guard(dpeUpdateQueueLock);
  auto update = std::make_unique<const CpvssUpdate>(list, time);
  dpeUpdateQueue.push_back(update.get());
  static_cast<void>(update.release());  // the queue's now
}

void KelApiManager::signalHandler(int signal) {
  if (signal == SIGINT || signal == SIGTERM) {
    Manager::exit(0);
  }
  Manager::signalHandler(signal);
}
