// Any bytes are a claim or a presence, which then say the same when they are written and read again, or are
// none.
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "session/ControlPayload.h"

namespace {

void require(bool holds) {
  if (!holds) {
    std::abort();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view payload(reinterpret_cast<const char*>(data), size);
  if (const auto claim = kel::decodeClaim(payload)) {
    require(!claim->publisher.name.empty() && !claim->publisher.incarnation.empty());
    const auto again = kel::decodeClaim(kel::encodeClaim(*claim, 1));
    require(again && again->publisher.text() == claim->publisher.text() && again->owner == claim->owner &&
            again->attempt == claim->attempt);
  }
  KelPublisherInfo info;
  const bool isPresence = kel::decodePresence(payload, info);
  const auto keepAlive = kel::presenceKeepAlive(payload);
  require(isPresence || !keepAlive);
  require(!keepAlive || (keepAlive->count() >= 1 && keepAlive->count() <= 3600));
  if (isPresence) {
    kel::PresencePayload presence;
    presence.publisher = {"name", "1"};
    presence.host = info.host;
    presence.process = info.process;
    presence.startedNanoseconds = info.startedNanoseconds;
    if (keepAlive) presence.keepAlive = *keepAlive;
    for (const auto& [name, counter] : kel::counterNames) {
      if (const auto found = info.counters.find(name); found != info.counters.end())
        presence.counters.*counter = found->second;
    }
    KelPublisherInfo second;
    const std::string bytes = kel::encodePresence(presence, 1);
    require(kel::decodePresence(bytes, second));
    require(second.host == info.host && second.process == info.process &&
            second.startedNanoseconds == info.startedNanoseconds);
    require(kel::presenceKeepAlive(bytes) == presence.keepAlive);
    for (const auto& [name, counter] : kel::counterNames)
      require(second.counters.at(name) == presence.counters.*counter);
  }
  return 0;
}
