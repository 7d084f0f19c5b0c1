// KelLedger: what became of the records of each publication, received and sent.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <kel/KelCounters.h>

/// What arrived of one publication from one process run of its publisher. Besides what KelCounters says,
///
///   restarted + last == before + (received - again) + gaps
struct KelReceived {
  std::string publication;  ///< empty: the sum of the publications that are not subscribed any more
  std::string publisher;    ///< name; empty for what nobody's number stands for and for sums
  std::string incarnation;
  std::int64_t runs = 0;       ///< process runs in this row: 1, of a sum more; 0: records without a publisher
  std::int64_t before = 0;     ///< numbers gone by when the first record arrived
  std::int64_t last = 0;       ///< the newest number that arrived; 0 in a sum
  std::int64_t restarted = 0;  ///< numbers of counts that the publisher has begun anew since; all of a sum
  std::int64_t again = 0;      ///< records that brought no new number: it had come before, or there was none
  KelCounters counters;        ///< the receiving ones, without listenerExceptions
};

/// What was sent of one publication.
struct KelSent {
  std::string publication;            ///< empty: the sum of publications destroyed long ago
  std::int64_t last = 0;              ///< the newest number given; as many as sends
  std::int64_t lastAcknowledged = 0;  ///< the newest number that the broker took; 0 in a sum
  KelCounters counters;               ///< the sending ones
};

/// Every record of one member of a group, all of one moment. Rows are few: for each publication the newest
/// process runs of its publisher, and a row for all older ones.
struct KelLedger {
  std::string publisher;  ///< whose books these are
  std::string incarnation;
  std::vector<KelReceived> received;  ///< by publication; the newest run of each first
  std::vector<KelSent> sent;          ///< by publication
};
