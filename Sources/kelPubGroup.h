// kelPubGroup: publications fed by groups of elements, and the thread that sends the buffered ones.
//
// Purpose    CkelPubGroup writes every value that arrives for its elements into one record, and publishes
//            it at once (buffer time 0) or through the one PublicationUpdateThread when the buffer time has
//            passed.
// Ownership  A group owns its mappings, its record and its publication; groups live until the process ends.
//            The thread owns its holders, which refer to groups.
// Thread     Construction, hot-links and unbuffered publishing on the main thread, buffered publishing on the
//            update thread. Lock order: the update thread's lock, then a group's.
// Units      Buffer times and delays in milliseconds.
// Errors     A group is built whole or not at all (CPubGroupException). Everything later is reported, and
//            values that cannot be published declare the publication bad.
#pragma once

#include <kel/KelFactory.h>
#include <pvss/CharString.h>
#include <pvss/DpIdentifier.h>
#include <pvss/DpVCItem.h>
#include <pvss/HotLinkWaitForAnswer.h>

#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <unordered_set>
#include <vector>

#include "dpeMapping.h"
#include "dpeMappingTuple.h"
#include "platformDependant.h"

/// A group could not be built.
class CPubGroupException {};

/// Orders pointers to identifiers by the identifiers.
struct DpIdentifierLess {
  bool operator()(const DpIdentifier* left, const DpIdentifier* right) const { return *left < *right; }
};

class CkelPubGroup : public HotLinkWaitForAnswer {
 public:
  /// Throws CPubGroupException when an element does not exist or has a type that nothing converts.
  CkelPubGroup(const CharString& name, int bufferTime_ms, const CvectorOfdpeMappingTuples& tuples);
  ~CkelPubGroup() override;

  using HotLinkWaitForAnswer::hotLinkCallBack;
  /// Does nothing: the connect is also answered by a hot-link.
  void hotLinkCallBack(DpMsgAnswer& answer) override;
  /// Takes the triples of value, source time and invalid flag, and publishes or has published.
  void hotLinkCallBack(DpHLGroup& group) override RUNTIME_EXCLUDES(dataObjectUpdateLock);

  /// Sends the record, or declares the publication bad while elements are invalid or fields missing.
  void updatePublication() const RUNTIME_EXCLUDES(dataObjectUpdateLock);
  /// Destroys all mappings.
  void deleteMappings();

  [[nodiscard]] const CharString& getPubName() const { return pubName; }

 protected:
  /// Takes one triple: items[0] value, items[1] source time, items[2] invalid flag.
  void updateKelDataFromDpeAttribs(DpVCItem** items) RUNTIME_REQUIRES(dataObjectUpdateLock);
  void updateDPEWrapperInvalidityAttrib(CpubDpeWrapper& wrapper, DpVCItem* item)
      RUNTIME_REQUIRES(dataObjectUpdateLock);

 private:
  /// Reports what the Kel library says of the publication; touches nothing.
  class CpubErrorHandler : public KelPublicationErrorHandler {
   public:
    void handleException(KelPublication* publication, KelException& exception) override;

   private:
    static constexpr runtime::Report<> internalError{"kelPubGroup", 52, "Pulisher has internal error\n"};
  };

  void makeMappings(const CvectorOfdpeMappingTuples& tuples, std::vector<DpIdentifier>& ids);
  void connect(const std::vector<DpIdentifier>& ids);
  void deleteMappings(const char* topicName);

  std::map<const DpIdentifier*, CdpeMapping*, DpIdentifierLess> dpeMappings;  ///< fixed after construction
  const CharString pubName;
  const int bufferTime_ms;
  KelPublication* pub;
  std::unique_ptr<KelData> dataObject RUNTIME_GUARDED_BY(dataObjectUpdateLock);
  CpubErrorHandler kelErrorHandler;
  mutable SMutex dataObjectUpdateLock;
  KelTimestamp mostRecentDpeTime RUNTIME_GUARDED_BY(dataObjectUpdateLock);
  unsigned long numberOfDPEsInvalid RUNTIME_GUARDED_BY(dataObjectUpdateLock);
};

class PublicationUpdateThread final : public SThread {
 public:
  PublicationUpdateThread();
  /// Ends the thread and deletes the holders that still wait, without publishing.
  ~PublicationUpdateThread();

  /// Queues the group to be published after the delay. False when it waits already: it keeps its due time.
  bool addGroup(CkelPubGroup& group, unsigned long mSecToWaitBeforePublish) RUNTIME_EXCLUDES(lock);

  /// Sets the stop flag, wakes the thread, waits for its end and deletes the holders without publishing. The
  /// thread can be started again.
  void stopInOrder() RUNTIME_EXCLUDES(lock);

  // One pass of the thread in two steps, between which it waits. Only the thread itself calls them, and tests
  // of a thread that does not run.

  /// What the thread waits for.
  struct Turn {
    long waitMs = 0;
    bool entryInHand = false;
  };
  [[nodiscard]] Turn beginTurn() RUNTIME_EXCLUDES(lock);
  /// `waitResult` is what SEvent::wait returned.
  void endTurn(const Turn& turn, short waitResult) RUNTIME_EXCLUDES(lock);

 protected:
  void threadMain() override;

 private:
  class GroupHolder {
   public:
    GroupHolder(CkelPubGroup& group, unsigned long delay) : mSecRelativeDelay(delay), pubGroup(group) {}

    [[nodiscard]] unsigned long getMSecDelay() const { return mSecRelativeDelay; }
    void setMSecDelay(unsigned long delay) { mSecRelativeDelay = delay; }
    void publishPubGroup() const { pubGroup.updatePublication(); }
    [[nodiscard]] bool sameGroup(const CkelPubGroup& other) const { return &pubGroup == &other; }
    [[nodiscard]] const CkelPubGroup& group() const { return pubGroup; }

   private:
    unsigned long
        mSecRelativeDelay;  ///< after the due time of the entry before, for the first after startWait
    const CkelPubGroup& pubGroup;
  };

  void bringFirstUpToDate() RUNTIME_REQUIRES(lock);

  std::list<GroupHolder*> groupsWaitingToPublish
      RUNTIME_GUARDED_BY(lock);  ///< in the order of their due times
  SMutex lock;
  SEvent publisherDelay;
  timeb startWait RUNTIME_GUARDED_BY(lock);  ///< from when the first entry's delay counts
  /// Most calls of addGroup are for a group that waits already: a thousand groups of ten elements that change
  /// 50 times a second would otherwise walk the list half a million times a second.
  std::unordered_set<const CkelPubGroup*> groupsInList RUNTIME_GUARDED_BY(lock);
};

/// The one thread; the first group that is built starts it.
extern PublicationUpdateThread gdelayedPubThread;
