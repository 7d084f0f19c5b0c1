#include "pvss/Manager.h"

#include <unistd.h>

#include <chrono>

#include "core/ManagerCore.h"
#include "pvss/DiagHotLinkWaitForAnswer.h"
#include "pvss/WaitForAnswer.h"
#include "store/Farewell.h"
#include "testing/Observers.h"

using pvss::testing::currentObserver;

Manager::ManagerState Manager::managerState = Manager::STATE_JUST_STARTED;
ManagerIdentifier Manager::eventId(0, EVENT_MAN, 0);
Manager* Manager::manPtr = nullptr;

namespace {

DpIdentList listOf(const DpIdentifier& id) {
  return DpIdentList{id};
}

}  // namespace

WaitForAnswer::~WaitForAnswer() {
  pvss::ManagerCore::forgetAnswer(this);
}

Manager::Manager(const ManagerIdentifier& identifier)
    : core_(std::make_unique<pvss::ManagerCore>(identifier)) {
  managerState = STATE_JUST_STARTED;
  manPtr = this;
  if (auto* const observer = currentObserver()) {
    observer->onRegister(identifier);
  }
}

Manager::~Manager() {
  core_.reset();
  if (manPtr == this) {
    manPtr = nullptr;
    managerState = STATE_JUST_STARTED;
  }
}

void Manager::signalHandler(int /*signal*/) {}

DiagHotLinkWaitForAnswer* Manager::newDiagWaitObject() {
  return new DiagHotLinkWaitForAnswer;
}

void Manager::connectToData(unsigned char flags, const DpConfigNrType* /*configs*/, unsigned int count) {
  if (auto* const observer = currentObserver()) {
    observer->onConnectToData(flags, count);
  }
  if (managerState == STATE_JUST_STARTED) {
    managerState = STATE_INIT;
    core_->connect();
  }
}

void Manager::connectToEvent(unsigned int flags) {
  if (auto* const observer = currentObserver()) {
    observer->onConnectToEvent(flags);
  }
}

void Manager::dispatch(long& sec, long& usec) {
  if (auto* const observer = currentObserver()) {
    observer->onDispatch(sec, usec);
  }
  if (manPtr != nullptr) {
    manPtr->core_->dispatch(std::chrono::seconds(sec) + std::chrono::microseconds(usec));
  }
}

PVSSboolean Manager::getId(const char* name, DpIdentifier& id) {
  id = DpIdentifier();
  if (manPtr != nullptr && name != nullptr) {
    id = manPtr->core_->catalogue().resolve(name);
  }
  if (auto* const observer = currentObserver()) {
    observer->onGetId(name, !id.isNull());
  }
  return !id.isNull();
}

PVSSboolean Manager::getElementType(const DpIdentifier& id, DpElementType& type) {
  type = manPtr == nullptr ? DPELEMENT_NOELEMENT : manPtr->core_->catalogue().typeOf(id.getEl());
  return type != DPELEMENT_NOELEMENT;
}

PVSSboolean Manager::getLIName(const DpIdentifier& id, CharString& name, signed char system) {
  name = CharString();
  if (manPtr != nullptr && system == DpIdentification::getDefaultSystem()) {
    name = CharString(manPtr->core_->catalogue().liName(id));
  }
  return !name.isEmpty();
}

PVSSboolean Manager::dpConnect(const DpIdentifier& id, const ManagerIdentifier& /*manager*/,
                               WaitForAnswer* answer, unsigned int flags) {
  const DpIdentList ids = listOf(id);
  if (auto* const observer = currentObserver()) {
    observer->onDpConnect(ids, answer, flags);
  }
  return manPtr != nullptr && manPtr->core_->connectTo(ids, false, answer);
}

PVSSboolean Manager::dpConnect(const DpIdentList& ids, const ManagerIdentifier& /*manager*/,
                               WaitForAnswer* answer, unsigned int flags) {
  if (auto* const observer = currentObserver()) {
    observer->onDpConnect(ids, answer, flags);
  }
  return manPtr != nullptr && manPtr->core_->connectTo(ids, true, answer);
}

PVSSboolean Manager::dpGet(const DpIdentList& ids, const ManagerIdentifier& /*manager*/,
                           WaitForAnswer* answer, unsigned int flags) {
  if (auto* const observer = currentObserver()) {
    observer->onDpGet(ids, answer, flags);
  }
  return manPtr != nullptr && manPtr->core_->read(ids, answer);
}

PVSSboolean Manager::dpSetTimed(const TimeVar& time, const DpIdValueList& values,
                                const ManagerIdentifier& /*manager*/, WaitForAnswer* /*answer*/,
                                unsigned int flags) {
  if (auto* const observer = currentObserver()) {
    observer->onDpSetTimed(time, values, flags);
  }
  return manPtr != nullptr && manPtr->core_->write(time.getValue().toMilliseconds(), values);
}

void Manager::exit(int code) {
  pvss::farewell::say();
  ::_exit(code);
}

void Manager::sigHdl(int signal) {
  if (manPtr != nullptr) {
    manPtr->signalHandler(signal);
  }
}

pvss::Counters Manager::getCounters() {
  return manPtr == nullptr ? pvss::Counters() : manPtr->core_->counters();
}
