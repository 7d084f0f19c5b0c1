// Kel: the way into the Kel client library.
//
// The broker's address is KEL_URL, or mqtt://127.0.0.1:1883 when that is not set:
//   loopback:[name]                     a broker inside this process, shared by all who give the same name
//   mqtt://host[:1883], mqtts://host[:8883]
// with options after a '?': group=NAME, qos=0|1, keepAlive=SECONDS, recordBytes=BYTES, and for TLS and log-in
// ca=FILE, cert=FILE, key=FILE, user=NAME, passfile=FILE. A secret never stands in the address.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

#include <kel/KelFactory.h>

/// What a test or a tool may set otherwise than the defaults.
struct KelOptions {
  std::string url;          ///< empty: KEL_URL, or the default
  std::string incarnation;  ///< empty: random; otherwise letters and digits, unique among all process runs
  std::function<std::int64_t()> wallClockNanoseconds;  ///< empty: the system's clock
  /// The hand-off to listeners and the outgoing queue: the newest record of each publication is always kept.
  /// Of all others there are so many; past either bound the publication that takes the most room loses its
  /// oldest.
  std::size_t handOffRecords = 20'000;
  std::size_t handOffBytes = 64U << 20U;
  std::size_t outgoingRecords = 20'000;
  std::size_t outgoingBytes = 64U << 20U;
  /// The last record of each subscribed publication, and the one whose publisher is not known to be alive
  /// yet. Past this bound the largest go: a resend of such a one is asked from the broker.
  std::size_t rememberedBytes = 64U << 20U;
};

class Kel {
 public:
  /// Never null and never blocks: the link is made, and kept up, in the background. The caller owns the
  /// result. Throws KelException when the address is not one. A null or empty name is replaced by one that
  /// nobody else has. Two live publishers of one name: the later one's publications wait until the earlier
  /// one is gone.
  static KelFactory* create(const char* publisherName);
  static KelFactory* create(const char* publisherName, const KelOptions& options);

  Kel() = delete;
};
