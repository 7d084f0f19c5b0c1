// KelCounters: every way in which a record can end, counted.
#pragma once

#include <cstdint>

/// A consistent copy. On the receiving side, at any moment,
///
///   received + resends == delivered + superseded + repeated + decodeErrors + discarded + held + pending
///
/// and on the sending side
///
///   sends == acknowledged + refused + outgoingSuperseded + outgoingPending
///
/// where a record that went out again after a reconnect counts once.
struct KelCounters {
  // Receiving.
  std::int64_t received = 0;   ///< records that arrived for a subscription of this factory
  std::int64_t resends = 0;    ///< further hand-offs of a record: requestResend, a second subscription
  std::int64_t delivered = 0;  ///< handleMessage has returned (or thrown)
  /// Replaced by a newer record of the same publication before it was delivered, also by one that overtook it
  /// on the way.
  std::int64_t superseded = 0;
  std::int64_t repeated = 0;      ///< the broker gave again what was already taken, dropped
  std::int64_t decodeErrors = 0;  ///< not a record, dropped
  std::int64_t discarded =
      0;  ///< subscription released, publication closed, broker lost, or no room, before delivery
  std::int64_t held = 0;     ///< now: waiting for a sign of life of their publisher
  std::int64_t pending = 0;  ///< now: waiting for the listener
  /// Kept records that were fetched again and brought nothing new; they are not in `received`.
  std::int64_t refetched = 0;
  /// Last records that are remembered no more, for want of room: the broker is asked when one is wanted
  /// again.
  std::int64_t givenUp = 0;
  std::int64_t gaps = 0;  ///< numbers missing in the sequences of the publishers

  // Sending.
  std::int64_t sends = 0;         ///< calls of send and declareBad on a possible publication
  std::int64_t acknowledged = 0;  ///< taken over by the broker
  std::int64_t refused = 0;       ///< refused by the broker, for instance for want of a right
  std::int64_t outgoingSuperseded =
      0;  ///< replaced by a newer record of the same publication before it went out
  std::int64_t outgoingPending = 0;  ///< now: waiting for the broker, or for the ownership of the name

  // The link.
  std::int64_t listenerExceptions = 0;  ///< what listeners and handlers threw
  std::int64_t reconnects = 0;          ///< times that the link came back
};
