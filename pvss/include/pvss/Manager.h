// Manager: the process as a manager of the system.
//
// Purpose    Connects to the data points, resolves names, reads, writes and follows values.
// Ownership  One object at a time; it is the one that the static operations speak for (manPtr). It may be
//            destroyed and another one made. Without an object the static operations fail or do nothing.
// Thread     One thread only, the one that constructs the object and runs dispatch(). All callbacks run
//            inside dispatch(). Only exit() and sigHdl() may be called from a signal handler.
// Blocking   Only dispatch() waits, and never longer than it is told.
// Errors     Nothing throws but running out of memory; what a callback throws passes out of dispatch().
#pragma once

#include <memory>

#include "pvss/CharString.h"
#include "pvss/Counters.h"
#include "pvss/DpConfigNrType.h"
#include "pvss/DpElementType.h"
#include "pvss/DpIdValueList.h"
#include "pvss/DpIdentList.h"
#include "pvss/DpIdentification.h"
#include "pvss/DpIdentifier.h"
#include "pvss/HotLinkWaitForAnswer.h"
#include "pvss/ManagerIdentifier.h"
#include "pvss/PVSSboolean.h"
#include "pvss/TimeVar.h"

class DiagHotLinkWaitForAnswer;

namespace pvss {
class ManagerCore;
}

class Manager {
 public:
  enum ManagerState { STATE_JUST_STARTED = 0, STATE_INIT = 1, STATE_ADJUST = 2, STATE_RUNNING = 3 };

  explicit Manager(const ManagerIdentifier& identifier);
  virtual ~Manager();
  Manager(const Manager&) = delete;
  Manager& operator=(const Manager&) = delete;

  /// Called for a signal through sigHdl(); does nothing here.
  virtual void signalHandler(int signal);
  /// A callback object for the platform's diagnosis; belongs to the caller.
  virtual DiagHotLinkWaitForAnswer* newDiagWaitObject();

  /// Begins to connect and sets STATE_INIT; dispatch() sets STATE_RUNNING once the names and types are known.
  /// Neither fails nor blocks, however long the store takes. The arguments have no meaning here.
  void connectToData(unsigned char flags, const DpConfigNrType* configs, unsigned int count);
  /// Nothing is left to do here: values and names come over the same connection.
  void connectToEvent(unsigned int flags);

  /// Runs input, output and callbacks. Waits at most `sec` and `usec` together and returns as soon as it has
  /// delivered something. The arguments stay as they are.
  static void dispatch(long& sec, long& usec);

  /// Resolves `[System:]Dp.element[:_config..attribute]`; a bare element means its online value. True when
  /// element and attribute exist, else `id` is left empty. No round trip.
  static PVSSboolean getId(const char* name, DpIdentifier& id);
  /// The type of the element, DPELEMENT_NOELEMENT and false when there is none (any more). No round trip.
  static PVSSboolean getElementType(const DpIdentifier& id, DpElementType& type);
  /// The full name, `System:Dp.element:_config..attribute`. False, and an empty name, for an empty
  /// identifier.
  static PVSSboolean getLIName(const DpIdentifier& id, CharString& name, signed char system);

  /// Follows one attribute: answers once with the current value, then calls back for every write that touches
  /// it, equal values included. An empty identifier answers with an item without value.
  static PVSSboolean dpConnect(const DpIdentifier& id, const ManagerIdentifier& manager,
                               WaitForAnswer* answer, unsigned int flags);
  /// Follows a list: answers once; then one hot-link group with the current values; then one group with all
  /// items, in connect order, for every write that touches any of them.
  static PVSSboolean dpConnect(const DpIdentList& ids, const ManagerIdentifier& manager,
                               WaitForAnswer* answer, unsigned int flags);
  /// Reads: one answer with the items in the order of the list. An element that is gone answers its defaults.
  static PVSSboolean dpGet(const DpIdentList& ids, const ManagerIdentifier& manager, WaitForAnswer* answer,
                           unsigned int flags);
  /// Writes all values with one time, as one change; within the call the last value of an attribute wins.
  /// Never blocks: the values wait in the backlog until the store has confirmed them.
  static PVSSboolean dpSetTimed(const TimeVar& time, const DpIdValueList& values,
                                const ManagerIdentifier& manager, WaitForAnswer* answer, unsigned int flags);

  /// Ends the process at once, without running destructors or draining anything; safe in a signal handler.
  [[noreturn]] static void exit(int code);
  /// Signal entry: hands the number to signalHandler() of the manager, if there is one.
  static void sigHdl(int signal);

  /// What became of the values so far; all zero without a manager.
  static pvss::Counters getCounters();

  static ManagerState managerState;
  static ManagerIdentifier eventId;  ///< the event manager, where connects, reads and writes go
  static Manager* manPtr;            ///< the one manager object, or null

 private:
  friend class pvss::ManagerCore;
  std::unique_ptr<pvss::ManagerCore> core_;
};
