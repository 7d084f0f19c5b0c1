// CkelClientManager: the subscribing side.
//
// Purpose    Reconciles wrappers and subscriptions with every delivered client list, by mark and sweep.
// Ownership  Owns the wrappers and the subscriptions.
// Thread     Main thread only; configLock marks an update that runs. Kel threads never take it. An update
//            dispatches while it waits for answers; a list that arrives meanwhile is kept (only the newest)
//            and applied right after the running update.
// Errors     What the Kel library throws while a subscription is made passes through, and leaves the update
//            unfinished. Elements that cannot be used are reported and left out.
#pragma once

#include <pvss/CharString.h>

#include <map>
#include <optional>
#include <vector>

#include "CdpeWrapper.h"
#include "CkelSubscription.h"
#include "kelManager.h"
#include "platformDependant.h"

class CkelClientManager : public CkelManager {
 public:
  CkelClientManager();
  ~CkelClientManager() override;

  /// The texts of the list are the names of the elements to feed.
  void updateConfig(const DynVar* list) override RUNTIME_EXCLUDES(configLock);

  /// Maps the element onto the tag of its address, subscribing if need be. Throws CdepException when the
  /// element is not valid; true otherwise.
  bool subscribeDPE(CdpeWrapper& dpe);
  /// Removes the element's mapping, which must exist.
  void unsubscribeDPE(const CdpeWrapper& dpe);
  CkelSubscription* createKelSubscription(const CharString& pubName);
  /// Ends the subscription, which must exist.
  void destroySubscription(const CharString& pubName);
  /// Drops every wrapper without mark, and every subscription without mapping.
  void sweep();
  void requestAnySubscriptionResends();

  /// Separates the name of a publication from the tag, and the fields of a publication's configuration.
  static constexpr char pubNameDelimiter[2] = {0x1A, 0};

 protected:
  using Subscriptions = std::map<const CharString*, CkelSubscription*, CharStringLess>;
  using Clients = std::map<const CharString*, CdpeWrapper*, CharStringLess>;

  Subscriptions kelPubsSubscribedTo;  ///< by the subscription's own name
  Clients dpeClients;                 ///< by the wrapper's own name
  SMutex configLock;
  int entranceCount;

 private:
  void applyConfig(const std::vector<CharString>& names) RUNTIME_EXCLUDES(configLock);
  void applyName(const CharString& name);

  bool updateRuns;                                      ///< an update is on, perhaps waiting in dispatch
  std::optional<std::vector<CharString>> waitingNames;  ///< the newest list that came meanwhile
};
