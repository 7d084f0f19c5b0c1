// KelFactory: one member of a Kel group, with its subscriptions and publications.
#pragma once

#include <chrono>

#include <kel/KelCounters.h>
#include <kel/KelData.h>
#include <kel/KelLedger.h>
#include <kel/KelPublication.h>
#include <kel/KelPublicationErrorHandler.h>
#include <kel/KelSubscription.h>
#include <kel/KelSubscriptionListener.h>

/// Made by Kel::create; the caller owns it. It owns the handles that it makes, the link to the broker and one
/// thread that calls listeners and handlers. Any thread may call. Nothing blocks except releaseSubscription,
/// destroyPublication, flush and the destructor, as they say. Nothing throws for what a network or a name
/// does.
class KelFactory {
 public:
  /// Ends the link in order: presence is withdrawn, so that everybody sees at once that this publisher is
  /// gone. Waits for a running callback; callbacks that still waited are not made. Must not run inside a
  /// callback.
  virtual ~KelFactory() = default;

  /// Never null. A name that no publication can have is reported through handleException.
  virtual KelSubscription* createSubscription(const char* publication, KelSubscriptionListener* listener) = 0;

  /// The handle ends. Waits for a callback of this subscription that runs on another thread, no longer. A
  /// null handle is nothing.
  virtual void releaseSubscription(KelSubscription* subscription) = 0;

  /// Never null. Claims the publication's name; a live owner elsewhere keeps it, and the handler is called.
  virtual KelPublication* createPublication(const char* publication, KelPublicationErrorHandler* handler) = 0;

  /// The handle ends and the publication is closed: subscribers see it as disconnected. Waits for a callback
  /// of its handler that runs on another thread, no longer. A null handle is nothing.
  virtual void destroyPublication(KelPublication* publication) = 0;

  /// A new, empty record; the caller deletes it.
  virtual KelData* createData() = 0;

  // For tools and tests: the gateway needs none of these.

  /// Waits until the broker has taken over everything that was sent and nothing waits for ownership, at most
  /// `limit`. True when that is so.
  virtual bool flush(std::chrono::milliseconds limit) = 0;

  [[nodiscard]] virtual KelCounters counters() const = 0;
  /// The counters of one publication, its subscriptions and its publishing side; zeros for a name not in use.
  [[nodiscard]] virtual KelCounters counters(const char* publication) const = 0;

  /// The counters of every publication with the numbers of its records, all of one moment. Its columns add up
  /// to what counters() says, but for listenerExceptions and reconnects.
  [[nodiscard]] virtual KelLedger ledger() const = 0;

  /// This process run, as presence and records carry it.
  [[nodiscard]] virtual const char* incarnation() const = 0;
};
