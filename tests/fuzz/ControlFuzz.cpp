// Any bytes are a claim, a presence or a piece of a ledger, which then say the same when they are written and
// read again, or are none.
#include <cstdint>
#include <string_view>
#include <utility>

#include "Require.h"
#include "session/ControlPayload.h"
#include "session/LedgerPayload.h"

using fuzz::require;

namespace {

void checkLedger(std::string_view payload) {
  auto piece = kel::decodeLedgerPiece(payload);
  if (!piece) return;
  require(piece->piece >= 0 && piece->piece < piece->pieces);
  const KelLedger ledger{piece->publisher.name, piece->publisher.incarnation, piece->received, piece->sent};
  kel::LedgerCollector collector;
  for (const std::string& bytes : kel::encodeLedger(ledger, piece->answer, 1)) {
    auto again = kel::decodeLedgerPiece(bytes);
    require(again && again->answer == piece->answer);
    collector.add(std::move(*again));
  }
  require(collector.ledger().has_value());
  const KelLedger& same = *collector.ledger();
  require(same.received.size() == ledger.received.size() && same.sent.size() == ledger.sent.size());
  for (std::size_t i = 0; i < ledger.received.size(); ++i) {
    require(same.received[i].publication == ledger.received[i].publication &&
            same.received[i].incarnation == ledger.received[i].incarnation &&
            same.received[i].last == ledger.received[i].last &&
            same.received[i].counters.gaps == ledger.received[i].counters.gaps);
  }
  for (std::size_t i = 0; i < ledger.sent.size(); ++i) {
    require(same.sent[i].publication == ledger.sent[i].publication &&
            same.sent[i].counters.outgoingPending == ledger.sent[i].counters.outgoingPending);
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
  checkLedger(payload);
  KelPublisherInfo info;
  const bool isPresence = kel::decodePresence(payload, info);
  const kel::PresenceNews news = kel::presenceNews(payload);
  const auto& keepAlive = news.keepAlive;
  require(isPresence || (!keepAlive && news.subscribing == 0 && news.subscriptions == 0));
  require(!keepAlive || (keepAlive->count() >= 1 && keepAlive->count() <= 3600));
  require(news.subscribing >= 0);
  if (isPresence) {
    kel::PresencePayload presence;
    presence.publisher = {"name", "1"};
    presence.host = info.host;
    presence.process = info.process;
    presence.startedNanoseconds = info.startedNanoseconds;
    if (keepAlive) presence.keepAlive = *keepAlive;
    presence.subscriptions = news.subscriptions;
    presence.subscribing = news.subscribing;
    for (const auto& [name, counter] : kel::counterNames) {
      if (const auto found = info.counters.find(name); found != info.counters.end())
        presence.counters.*counter = found->second;
    }
    KelPublisherInfo second;
    const std::string bytes = kel::encodePresence(presence, 1);
    require(kel::decodePresence(bytes, second));
    require(second.host == info.host && second.process == info.process &&
            second.startedNanoseconds == info.startedNanoseconds);
    const kel::PresenceNews again = kel::presenceNews(bytes);
    require(again.keepAlive == presence.keepAlive && again.subscribing == presence.subscribing);
    for (const auto& [name, counter] : kel::counterNames)
      require(second.counters.at(name) == presence.counters.*counter);
  }
  return 0;
}
