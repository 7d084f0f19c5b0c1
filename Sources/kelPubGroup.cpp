#include "kelPubGroup.h"

#include <pvss/DpIdentList.h>
#include <pvss/DpIdentification.h>
#include <pvss/Manager.h>
#include <pvss/TimeVar.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <limits>
#include <utility>
#include <vector>

#include "KelApiManager.h"

namespace {

constexpr runtime::Notice<const char*, const char*> mappingCreated{
    "kelPubGroup", "Created publisher mapping between DPE %s tag %s\n"};
constexpr runtime::Notice<const char*> groupCreated{"kelPubGroup", "Created Publication group %s\n"};
constexpr runtime::Notice<const char*> groupDestroyed{"kelPubGroup", "Destroying Publication group %s\n"};
constexpr runtime::Notice<> unbornGroupDestroyed{
    "kelPubGroup", "Destroying pub group mappings before publication was created\n"};

constexpr runtime::Report<const char*, const char*> dpeNotPublishable{
    "kelPubGroup", 237, "Invalid DPE %s can not be published through %s. This pub is now invalid\n"};
constexpr runtime::Report<const char*, const char*> dpeNotMapped{
    "kelPubGroup", 351, "Got value for DPE %s which IS NOT MAPPED into %s -- SHOULD RESTART API MANAGER\n"};
constexpr runtime::Report<const char*, const char*> mappingInvalid{
    "kelPubGroup", 370, "Mapping from DPE %s to tag %s has become invalid -- SHOULD RESTART API MANAGER\n"};
constexpr runtime::Report<> waitFailed{"kelPubGroup", 194,
                                       "PublicationUpdateThread wait failed - retrying\n"};

constexpr runtime::Invariant wholeGroupArrived{"kelPubGroup", 403,
                                               "(group.getNumberOfItems()/3) == dpeMappings.size()"};
constexpr runtime::Invariant lastInList{"kelPubGroup", 151, "totalTimeLeftToWait <= mSecToWaitBeforePublish"};
constexpr runtime::Invariant delayNotNegative{"kelPubGroup", 157, "newDelay >= 0"};

constexpr const char* someInvalid = "%lu PVSS dpe's set to invalid";
constexpr const char* someMissing =
    "PVSS has not supplied values for all fields making the publication (%d missing)";
constexpr std::size_t reasonSize = 112;

constexpr std::size_t itemsPerDpe = 3;
constexpr std::int64_t nsPerMs = 1'000'000;
constexpr std::int64_t msPerSecond = 1000;
constexpr long idleWaitMs = 1000;

std::int64_t millisecondsOf(const timeb& moment) {
  return std::int64_t{moment.time} * msPerSecond + moment.millitm;
}

/// Milliseconds of a source time, kept within what a timestamp can hold.
std::int64_t millisecondsOf(const TimeVar& time) {
  constexpr std::int64_t most = std::numeric_limits<std::int64_t>::max() / nsPerMs;
  constexpr std::int64_t mostSeconds = most / msPerSecond - 1;
  const std::int64_t seconds = std::clamp<std::int64_t>(time.getSeconds(), -mostSeconds, mostSeconds);
  return seconds * msPerSecond + time.getMilli();
}

CharString nameOf(const DpIdentifier& id) {
  CharString name;
  Manager::getLIName(id, name, DpIdentification::getDefaultSystem());
  return name;
}

}  // namespace

PublicationUpdateThread gdelayedPubThread;

// --- CkelPubGroup

CkelPubGroup::CkelPubGroup(const CharString& name, int bufferTime, const CvectorOfdpeMappingTuples& tuples)
    : pubName(name),
      bufferTime_ms(bufferTime),
      pub(nullptr),
      dataObjectUpdateLock(SString(pubName) + "updateLock"),
      numberOfDPEsInvalid(0) {
  std::vector<DpIdentifier> ids;
  makeMappings(tuples, ids);
  connect(ids);
  pub = KelApiManager::kelFactory->createPublication(pubName, &kelErrorHandler);
  dataObject.reset(KelApiManager::kelFactory->createData());
  runtime::inform(groupCreated, pub->getTopicName());
  if (!gdelayedPubThread.isRunning()) {
    gdelayedPubThread.start();
  }
}

void CkelPubGroup::makeMappings(const CvectorOfdpeMappingTuples& tuples, std::vector<DpIdentifier>& ids) {
  for (const CdpeMappingTuple* const tuple : tuples) {
    auto wrapper = std::make_unique<CpubDpeWrapper>(tuple->DPEname);
    try {
      if (!wrapper->revalidateDPE()) {
        runtime::report(dpeNotPublishable, tuple->DPEname, pubName);
        wrapper.reset();
        deleteMappings();
        throw CPubGroupException();
      }
      auto mapping = std::make_unique<CdpeMapping>(wrapper.get(), tuple->tagName);
      const CpubDpeWrapper& dpe = *wrapper.release();  // the mapping's now
      runtime::inform(mappingCreated, mapping->getDPEName(), mapping->getTagName());
      // An equal identifier keeps its place and gets the new mapping; the earlier one stays behind for good.
      dpeMappings[&dpe.getKELValueID()] = mapping.release();
      ids.insert(ids.end(), {dpe.getKELValueID(), dpe.getKELTimeStampID(), dpe.getKELinvalidBit()});
    } catch (const BadTypeConversionException&) {
      wrapper.reset();
      deleteMappings();
      throw CPubGroupException();
    }
  }
}

void CkelPubGroup::connect(const std::vector<DpIdentifier>& ids) {
  // Unbuffered, every hot-link is to carry the whole group; buffered, each element comes by itself.
  const std::size_t idsPerConnect = bufferTime_ms == 0 ? ids.size() : itemsPerDpe;
  for (std::size_t first = 0; first < ids.size(); first += idsPerConnect) {
    DpIdentList list;
    for (std::size_t i = first; i < first + idsPerConnect; ++i) {
      list.append(ids[i]);
    }
    Manager::dpConnect(list, Manager::eventId, this, 0);
  }
}

CkelPubGroup::~CkelPubGroup() {
  const CharString topicName(pub->getTopicName());  // taken while the handle is valid
  KelApiManager::kelFactory->destroyPublication(pub);
  dataObject.reset();
  deleteMappings(topicName);
}

void CkelPubGroup::deleteMappings() {
  deleteMappings(pub != nullptr ? pub->getTopicName() : nullptr);
}

void CkelPubGroup::deleteMappings(const char* topicName) {
  if (topicName != nullptr) {
    runtime::inform(groupDestroyed, topicName);
  } else {
    runtime::inform(unbornGroupDestroyed);
  }
  for (const auto& [id, mapping] : std::exchange(dpeMappings, {})) {
    delete mapping;
  }
}

void CkelPubGroup::hotLinkCallBack(DpMsgAnswer& /*answer*/) {}

void CkelPubGroup::hotLinkCallBack(DpHLGroup& group) {
  {
    const SmutexGuard guard(dataObjectUpdateLock);
    for (DpVCItem* value = group.getFirstItem(); value != nullptr; value = group.getNextItem()) {
      DpVCItem* const time = group.getNextItem();
      std::array<DpVCItem*, itemsPerDpe> items{value, time, group.getNextItem()};
      updateKelDataFromDpeAttribs(items.data());
    }
  }
  if (bufferTime_ms != 0) {
    // A negative time is its 32-bit unsigned count, on machines with a wider unsigned long too.
    gdelayedPubThread.addGroup(*this, static_cast<std::uint32_t>(bufferTime_ms));
    return;
  }
  runtime::require((group.getNumberOfItems() / itemsPerDpe) == dpeMappings.size(), wholeGroupArrived);
  updatePublication();
}

void CkelPubGroup::updateKelDataFromDpeAttribs(DpVCItem** items) {
  const DpIdentifier& id = items[0]->getDpIdentifier();
  const auto found = dpeMappings.find(&id);
  if (found == dpeMappings.end()) {
    runtime::report(dpeNotMapped, nameOf(id), pubName);
    return;
  }
  CdpeMapping& mapping = *found->second;
  CpubDpeWrapper& wrapper = mapping.getMappedDpe();
  updateDPEWrapperInvalidityAttrib(wrapper, items[2]);
  if (wrapper.isInvalidAttributeSet()) {
    return;
  }
  try {
    mapping.writeValueToKelData(*dataObject, items[0]->getValuePtr());
  } catch (...) {
    runtime::report(mappingInvalid, nameOf(id), mapping.getTagName());
    return;
  }
  const Variable* const time = items[1]->getValuePtr();
  if (time == nullptr) {
    return;
  }
  const std::int64_t ms = millisecondsOf(static_cast<const TimeVar&>(*time));
  if (ms > mostRecentDpeTime.timeNanoseconds / nsPerMs) {
    mostRecentDpeTime.timeNanoseconds = ms * nsPerMs;
  }
}

void CkelPubGroup::updateDPEWrapperInvalidityAttrib(CpubDpeWrapper& wrapper, DpVCItem* item) {
  const bool before = wrapper.isInvalidAttributeSet();
  wrapper.storeInvalidAttribute(item->getValuePtr());
  const bool after = wrapper.isInvalidAttributeSet();
  if (after && !before) {
    ++numberOfDPEsInvalid;
  } else if (before && !after) {
    --numberOfDPEsInvalid;
  }
}

void CkelPubGroup::updatePublication() const {
  const SmutexGuard guard(dataObjectUpdateLock);
  std::array<char, reasonSize> reason{};
  if (numberOfDPEsInvalid != 0) {
    std::snprintf(reason.data(), reason.size(), someInvalid, numberOfDPEsInvalid);
    pub->declareBad(reason.data());
    return;
  }
  const auto fields = static_cast<std::size_t>(dataObject->size());
  if (fields != dpeMappings.size()) {
    std::snprintf(reason.data(), reason.size(), someMissing, static_cast<int>(dpeMappings.size() - fields));
    pub->declareBad(reason.data());
    return;
  }
  KelTimestamp newest = mostRecentDpeTime;
  pub->send(*dataObject, newest);
}

void CkelPubGroup::CpubErrorHandler::handleException(KelPublication* /*publication*/,
                                                     KelException& /*exception*/) {
  runtime::report(internalError);
}

// --- PublicationUpdateThread

PublicationUpdateThread::PublicationUpdateThread()
    : lock("PublicationUpdateThread_lock"),
      publisherDelay("PublicationUpdateThread_event"),
      startWait(runtime::wallClockNow()) {}

PublicationUpdateThread::~PublicationUpdateThread() {
  stopInOrder();
}

void PublicationUpdateThread::stopInOrder() {
  constexpr unsigned long pollUs = 500;
  constexpr int mostPolls = 20'000;  // ten seconds; a forked child has the handle, but not the thread
  stop();
  publisherDelay.signal();
  for (int polls = 0; isRunning() && polls < mostPolls; ++polls) {
    msSleep(pollUs);
  }
  publisherDelay.clearPending();
  const SmutexGuard guard(lock);
  for (const GroupHolder* const holder : std::exchange(groupsWaitingToPublish, {})) {
    delete holder;
  }
  groupsInList.clear();
}

bool PublicationUpdateThread::addGroup(CkelPubGroup& group, unsigned long mSecToWaitBeforePublish) {
  const SmutexGuard guard(lock);
  bringFirstUpToDate();
  if (!groupsInList.insert(&group).second) {
    return false;
  }

  unsigned long totalTimeLeftToWait = 0;
  unsigned long relativeDelay = 0;
  auto insertionPoint = groupsWaitingToPublish.end();
  for (auto entry = groupsWaitingToPublish.begin(); entry != groupsWaitingToPublish.end(); ++entry) {
    const unsigned long timeLeftBefore = totalTimeLeftToWait;
    totalTimeLeftToWait += (*entry)->getMSecDelay();
    if (totalTimeLeftToWait > mSecToWaitBeforePublish) {
      insertionPoint = entry;
      relativeDelay = mSecToWaitBeforePublish - timeLeftBefore;
      break;
    }
  }

  if (insertionPoint != groupsWaitingToPublish.end()) {
    const auto newDelay = static_cast<std::int64_t>((*insertionPoint)->getMSecDelay() - relativeDelay);
    runtime::require(newDelay >= 0, delayNotNegative);
    (*insertionPoint)->setMSecDelay(static_cast<unsigned long>(newDelay));
  } else {
    runtime::require(totalTimeLeftToWait <= mSecToWaitBeforePublish, lastInList);
    relativeDelay = mSecToWaitBeforePublish - totalTimeLeftToWait;
  }

  auto holder = std::make_unique<GroupHolder>(group, relativeDelay);
  const auto inserted = groupsWaitingToPublish.insert(insertionPoint, holder.get());
  static_cast<void>(holder.release());  // the list's now
  if (inserted == groupsWaitingToPublish.begin()) {
    publisherDelay.signal();  // the thread is to start a new, shorter wait
  }
  return true;
}

/// Deducts from the first entry what has passed since startWait, which then is now.
void PublicationUpdateThread::bringFirstUpToDate() {
  if (!groupsWaitingToPublish.empty()) {
    const std::int64_t elapsed = millisecondsOf(runtime::wallClockNow()) - millisecondsOf(startWait);
    GroupHolder& first = *groupsWaitingToPublish.front();
    const std::int64_t left = static_cast<std::int64_t>(first.getMSecDelay()) - elapsed;
    first.setMSecDelay(static_cast<unsigned long>(std::max<std::int64_t>(left, 0)));
  }
  startWait = runtime::wallClockNow();
}

void PublicationUpdateThread::threadMain() {
  while (!shouldStop) {
    const Turn turn = beginTurn();
    const short waitResult = publisherDelay.wait(turn.waitMs);
    if (shouldStop) {
      return;
    }
    endTurn(turn, waitResult);
  }
}

PublicationUpdateThread::Turn PublicationUpdateThread::beginTurn() {
  const SmutexGuard guard(lock);
  if (groupsWaitingToPublish.empty()) {
    return {idleWaitMs, false};
  }
  startWait = runtime::wallClockNow();
  return {static_cast<long>(groupsWaitingToPublish.front()->getMSecDelay()), true};
}

void PublicationUpdateThread::endTurn(const Turn& turn, short waitResult) {
  if (waitResult == SEvent::failed) {
    runtime::report(waitFailed);
    return;
  }
  if (waitResult != SEvent::timedOut || !turn.entryInHand) {
    return;
  }
  const SmutexGuard guard(lock);
  if (groupsWaitingToPublish.empty()) {
    return;
  }
  const std::unique_ptr<const GroupHolder> due(groupsWaitingToPublish.front());
  groupsWaitingToPublish.pop_front();
  groupsInList.erase(&due->group());
  startWait = runtime::wallClockNow();  // the entries behind count from this moment
  due->publishPubGroup();
}
