#include "session/ControlPayload.h"

#include <algorithm>

#include "data/RecordAccess.h"
#include "wire/RecordCodec.h"

namespace kel {
namespace {

std::optional<std::string> textOf(const Record& record, std::string_view name) {
  const Field* field = record.find(name);
  if (field == nullptr || field->type != typeString) return std::nullopt;
  return std::string(field->text());
}

std::int64_t numberOf(const Record& record, std::string_view name) {
  const Field* field = record.find(name);
  return field == nullptr || field->type != typeLong ? 0 : field->value.int64;
}

void putNumber(Record& record, std::string_view name, std::int64_t number) {
  record.putScalar(name, typeLong).value.int64 = number;
}

}  // namespace

std::string encodeClaim(const ClaimPayload& claim, std::int64_t timestampMs) {
  Record record;
  record.setText(record.put("publisher"), claim.publisher.text());
  record.setText(record.put("state"), claim.owner ? "owner" : "claim");
  putNumber(record, "attempt", claim.attempt);
  return encodeFields(record, timestampMs);
}

std::optional<ClaimPayload> decodeClaim(std::string_view payload) {
  const DecodedRecord decoded = decodeRecord(payload);
  if (!decoded.record) return std::nullopt;
  const auto publisher = textOf(*decoded.record, "publisher");
  if (!publisher) return std::nullopt;
  const auto id = PublisherId::parse(*publisher);
  if (!id) return std::nullopt;
  return ClaimPayload{*id, textOf(*decoded.record, "state") == "owner", numberOf(*decoded.record, "attempt")};
}

std::string encodePresence(const PresencePayload& presence, std::int64_t timestampMs) {
  Record record;
  record.setText(record.put("publisher"), presence.publisher.text());
  record.setText(record.put("host"), presence.host);
  putNumber(record, "process", presence.process);
  putNumber(record, "started", presence.startedNanoseconds);
  putNumber(record, "keepAlive", presence.keepAlive.count());
  putNumber(record, "subscriptions", presence.subscriptions);
  putNumber(record, "subscribing", presence.subscribing);
  putNumber(record, "publishing", presence.publishing);
  putNumber(record, "gaveWay", presence.gaveWay);
  for (const auto& [name, counter] : counterNames) {
    putNumber(record, "counters/" + std::string(name), presence.counters.*counter);
  }
  return encodeFields(record, timestampMs);
}

bool decodePresence(std::string_view payload, KelPublisherInfo& info) {
  const DecodedRecord decoded = decodeRecord(payload);
  if (!decoded.record) return false;
  const Record& record = *decoded.record;
  info.host = textOf(record, "host").value_or("");
  info.process = numberOf(record, "process");
  info.startedNanoseconds = numberOf(record, "started");
  for (const Field& field : record.fields()) {
    constexpr std::string_view prefix = "counters/";
    if (field.type == typeLong && field.nameView().starts_with(prefix)) {
      info.counters[std::string(field.nameView().substr(prefix.size()))] = field.value.int64;
    }
  }
  return true;
}

PresenceNews presenceNews(std::string_view payload) {
  PresenceNews news;
  const DecodedRecord decoded = decodeRecord(payload);
  if (!decoded.record) return news;
  const std::int64_t seconds = numberOf(*decoded.record, "keepAlive");
  if (seconds >= 1 && seconds <= 3600) news.keepAlive = std::chrono::seconds(seconds);
  news.subscriptions = std::max<std::int64_t>(numberOf(*decoded.record, "subscriptions"), 0);
  news.subscribing = std::max<std::int64_t>(numberOf(*decoded.record, "subscribing"), 0);
  news.publishing = std::max<std::int64_t>(numberOf(*decoded.record, "publishing"), 0);
  news.gaveWay = std::max<std::int64_t>(numberOf(*decoded.record, "gaveWay"), 0);
  return news;
}

}  // namespace kel
