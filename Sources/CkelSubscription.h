// CkelSubscription: one subscription to one Kel publication, shared by all elements that it feeds.
//
// Purpose    Makes of every received record one list of writes, and of every change of the connection one
//            list of invalid flags, and queues them for the main loop.
// Ownership  Belongs to the client manager; owns its mappings and its handle of the Kel library.
// Thread     The listener operations run on Kel threads, everything else on the main thread. The mappings
//            are changed and gone through under the lock; the lock is never held while a list is queued.
// Errors     Nothing leaves the listener operations; what is caught is reported.
#pragma once

#include <kel/KelFactory.h>
#include <pvss/CharString.h>
#include <pvss/DpIdValueList.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

#include "CkelDataMapping.h"
#include "platformDependant.h"

class CkelSubscription : public KelSubscriptionListener {
 public:
  /// Subscribes at once, through the factory of KelApiManager.
  explicit CkelSubscription(const CharString& pubName);
  CkelSubscription(const CkelSubscription&) = delete;
  CkelSubscription& operator=(const CkelSubscription&) = delete;
  /// Waits for a listener operation that runs.
  ~CkelSubscription() override;

  void handleMessage(KelSubscription* handle, KelData& data) override;
  void disconnected(KelSubscription* handle, char* reason) override;
  void connected(KelSubscription* handle) override;
  void handleException(KelSubscription* handle, KelException& exception) override;

  /// Throws CdepException when the element is not valid.
  void createMapping(const CharString& tag, const CharString& fullAddress, CdpeWrapper& dpe)
      RUNTIME_EXCLUDES(lock);
  /// Removes the first mapping of the element's name; nothing when there is none.
  void destroyMapping(const CdpeWrapper& dpe) RUNTIME_EXCLUDES(lock);

  [[nodiscard]] int getNumberOfMappings() const RUNTIME_EXCLUDES(lock);
  [[nodiscard]] bool isConnectedToPublication() const { return connectedToPublication; }
  [[nodiscard]] bool mustGetLastPubValue() const { return mustGetLastPubValueFlag; }
  void markForGetLastPubValue() { mustGetLastPubValueFlag = true; }
  void clearGetLastPubValueMark() { mustGetLastPubValueFlag = false; }
  void requestLastPublishedValue() { subscription->requestResend(); }
  [[nodiscard]] const CharString& getPubName() const { return publication; }

 protected:
  /// Reports the exception that is being handled.
  void reportCaughtException() const;

 private:
  friend class CkelDataMapping;  // what it shows to Kel threads changes under the lock

  void takeRecord(KelData& data) RUNTIME_EXCLUDES(lock);
  void updateValidityOfMappedDPEs() RUNTIME_EXCLUDES(lock);
  void sendListOfUpdatesToPVSS(std::unique_ptr<DpIdValueList> list, std::int64_t ms) const;

  KelSubscription* subscription;
  const CharString publication;
  std::vector<CkelDataMapping*> tagMappings RUNTIME_GUARDED_BY(lock);  ///< in the order of their writes
  std::atomic<bool> connectedToPublication;
  std::atomic<bool> mustGetLastPubValueFlag;
  mutable SMutex lock;
  bool recordPassedUnmapped RUNTIME_GUARDED_BY(lock);  ///< came while there was no mapping to take it
};
