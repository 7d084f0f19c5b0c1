// What presence and claims carry: Sparkplug payloads like records, with plain metrics.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "kel/KelBrowser.h"
#include "kel/KelCounters.h"
#include "wire/Topics.h"

namespace kel {

/// A claim on a publication's name.
struct ClaimPayload {
  PublisherId publisher;
  bool owner = false;  ///< it is published by an owner that defends its name, not by one that asks for it
  std::int64_t attempt = 0;  ///< which of its publisher's claims this is
};
[[nodiscard]] std::string encodeClaim(const ClaimPayload& claim, std::int64_t timestampMs);
[[nodiscard]] std::optional<ClaimPayload> decodeClaim(std::string_view payload);

/// The presence of one process run.
struct PresencePayload {
  PublisherId publisher;
  std::string host;
  std::int64_t process = 0;
  std::int64_t startedNanoseconds = 0;
  std::chrono::seconds keepAlive{5};  ///< it is published at least twice as often
  KelCounters counters;
  std::int64_t subscribing = 0;    ///< data subscriptions that the broker has not answered yet on this link
  std::int64_t publishing = 0;     ///< publications whose last record was sent as good
  std::int64_t gaveWay = 0;        ///< how often it went behind the others of its name
  std::int64_t subscriptions = 0;  ///< to data, answered or not
};
[[nodiscard]] std::string encodePresence(const PresencePayload& presence, std::int64_t timestampMs);
/// Fills what the payload says; false when it is not a presence.
bool decodePresence(std::string_view payload, KelPublisherInfo& info);

/// What a presence says to the other members.
struct PresenceNews {
  std::optional<std::chrono::seconds> keepAlive;  ///< nothing when it names none that makes sense
  std::int64_t subscriptions = 0;                 ///< 0 when it does not say
  std::int64_t subscribing = 0;                   ///< 0 when it does not say
  std::int64_t publishing = 0;                    ///< likewise
  std::int64_t gaveWay = 0;                       ///< likewise
};
/// Unpacks it once; of a payload that is no presence there is no news.
[[nodiscard]] PresenceNews presenceNews(std::string_view payload);

/// Every counter by its name in KelCounters.
struct CounterName {
  const char* name;
  std::int64_t KelCounters::*counter;
};
inline constexpr CounterName counterNames[] = {
    {"received", &KelCounters::received},
    {"resends", &KelCounters::resends},
    {"delivered", &KelCounters::delivered},
    {"superseded", &KelCounters::superseded},
    {"repeated", &KelCounters::repeated},
    {"decodeErrors", &KelCounters::decodeErrors},
    {"discarded", &KelCounters::discarded},
    {"held", &KelCounters::held},
    {"pending", &KelCounters::pending},
    {"gaps", &KelCounters::gaps},
    {"refetched", &KelCounters::refetched},
    {"givenUp", &KelCounters::givenUp},
    {"sends", &KelCounters::sends},
    {"acknowledged", &KelCounters::acknowledged},
    {"refused", &KelCounters::refused},
    {"outgoingSuperseded", &KelCounters::outgoingSuperseded},
    {"outgoingPending", &KelCounters::outgoingPending},
    {"listenerExceptions", &KelCounters::listenerExceptions},
    {"reconnects", &KelCounters::reconnects},
};

}  // namespace kel
