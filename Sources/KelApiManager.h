// KelApiManager: the process as a manager of the platform, with its main loop.
//
// Purpose    Owns the two sides, makes the Kel factory, connects the two lists, and writes to the platform
//            what Kel threads have queued: one dpSetTimed call a record, in the order of arrival.
// Ownership  One object; it lives until the process ends, or, in tests, until it is destroyed, which ends the
//            publication update thread. A queued CpvssUpdate owns its list and its time.
// Thread     Main thread, except sendListOfUpdatesToPVSS, which any thread may call.
// Errors     Reports on standard output; nothing of its own throws.
#pragma once

#include <kel/Kel.h>
#include <pvss/DpIdValueList.h>
#include <pvss/Manager.h>
#include <pvss/PVSSboolean.h>
#include <pvss/TimeVar.h>

#include <atomic>
#include <deque>
#include <memory>

#include "KELClientManager.h"
#include "kelPublicationManager.h"
#include "platformDependant.h"

/// One pending write: values with their source time. Owns both.
class CpvssUpdate {
 public:
  CpvssUpdate(const DpIdValueList* theList, const TimeVar* theTime) : list(theList), time(theTime) {
    runtime::require(theList != nullptr, listGiven);
    runtime::require(theTime != nullptr, timeGiven);
  }

  [[nodiscard]] const DpIdValueList& getList() const { return *list; }
  [[nodiscard]] const TimeVar& getTime() const { return *time; }

 private:
  static constexpr runtime::Invariant listGiven{"KelApiManager", 41, "theList"};
  static constexpr runtime::Invariant timeGiven{"KelApiManager", 42, "theTime"};

  std::unique_ptr<const DpIdValueList> list;
  std::unique_ptr<const TimeVar> time;
};

class KelApiManager : public Manager {
 public:
  KelApiManager();
  ~KelApiManager() override;

  /// The whole life of the manager; returns only when doExit is set.
  void run();

  /// Queues values for the main loop. Takes both objects over; waits at most for a running drain.
  static void sendListOfUpdatesToPVSS(const DpIdValueList* list, const TimeVar* time)
      RUNTIME_EXCLUDES(dpeUpdateQueueLock);

  /// SIGINT and SIGTERM end the process at once; anything else is the platform's.
  void signalHandler(int signal) override;

  static KelFactory* kelFactory;           ///< null until run() makes it; never destroyed here
  static std::atomic<PVSSboolean> doExit;  ///< ends the main loop
  static SMutex dpeUpdateQueueLock;

 protected:
  /// Writes everything that is queued.
  static void writeQueuedUpdates() RUNTIME_EXCLUDES(dpeUpdateQueueLock);

  static std::deque<const CpvssUpdate*> dpeUpdateQueue RUNTIME_GUARDED_BY(dpeUpdateQueueLock);

 private:
  CkelClientManager clientManager;
  CkelPublicationManager publicationManager;
};
