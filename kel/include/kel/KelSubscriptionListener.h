// KelSubscriptionListener: what a subscriber implements.
#pragma once

#include <kel/KelData.h>
#include <kel/KelException.h>
#include <kel/KelSubscription.h>

/// Owned by the application; must live until releaseSubscription has returned. Called on the library's own
/// threads only, never from inside a call that the application makes, in order per publication, never two
/// calls at a time for one subscription, and never after releaseSubscription has returned. What a call throws
/// is caught and counted by the library. A call may release its own subscription.
class KelSubscriptionListener {
 public:
  virtual ~KelSubscriptionListener() = default;
  /// A record. It ends with the call.
  virtual void handleMessage(KelSubscription* subscription, KelData& data) = 0;
  /// What was received so far, by this or an earlier run of the application, is not current any more.
  /// `reason` is text for people and ends with the call. A subscription that is not connected is told so
  /// once, too: when that is certain, or while the link is down, but not before one second, or as long as it
  /// took to make them, has passed since the last createSubscription of this factory. So who prepares what
  /// the call needs right behind createSubscription misses none.
  virtual void disconnected(KelSubscription* subscription, char* reason) = 0;
  /// The publication has a live publisher; comes before the record that it announces.
  virtual void connected(KelSubscription* subscription) = 0;
  /// The subscription cannot work, for instance because no publication can have this name.
  virtual void handleException(KelSubscription* subscription, KelException& exception) = 0;
};
