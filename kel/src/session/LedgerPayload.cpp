#include "session/LedgerPayload.h"

#include <algorithm>
#include <utility>

#include "data/Record.h"
#include "wire/RecordCodec.h"

namespace kel {
namespace {

/// A piece is full with so many rows, or so many bytes of names.
constexpr std::size_t mostRows = 256;
constexpr std::size_t mostBytes = 32U << 10U;
/// An answer of more pieces than any process has is none.
constexpr std::int64_t mostPieces = 100'000;

template <class Row>
struct Column {
  const char* name;
  std::int64_t Row::*own = nullptr;
  std::int64_t KelCounters::*counter = nullptr;
  [[nodiscard]] std::int64_t& of(Row& row) const { return own != nullptr ? row.*own : row.counters.*counter; }
  [[nodiscard]] std::int64_t of(const Row& row) const {
    return own != nullptr ? row.*own : row.counters.*counter;
  }
};

constexpr Column<KelReceived> receivedColumns[] = {
    {"received/runs", &KelReceived::runs},
    {"received/before", &KelReceived::before},
    {"received/last", &KelReceived::last},
    {"received/restarted", &KelReceived::restarted},
    {"received/again", &KelReceived::again},
    {"received/received", nullptr, &KelCounters::received},
    {"received/resends", nullptr, &KelCounters::resends},
    {"received/delivered", nullptr, &KelCounters::delivered},
    {"received/superseded", nullptr, &KelCounters::superseded},
    {"received/repeated", nullptr, &KelCounters::repeated},
    {"received/decodeErrors", nullptr, &KelCounters::decodeErrors},
    {"received/discarded", nullptr, &KelCounters::discarded},
    {"received/held", nullptr, &KelCounters::held},
    {"received/pending", nullptr, &KelCounters::pending},
    {"received/gaps", nullptr, &KelCounters::gaps},
};

constexpr Column<KelSent> sentColumns[] = {
    {"sent/last", &KelSent::last},
    {"sent/lastAcknowledged", &KelSent::lastAcknowledged},
    {"sent/sends", nullptr, &KelCounters::sends},
    {"sent/acknowledged", nullptr, &KelCounters::acknowledged},
    {"sent/refused", nullptr, &KelCounters::refused},
    {"sent/outgoingSuperseded", nullptr, &KelCounters::outgoingSuperseded},
    {"sent/outgoingPending", nullptr, &KelCounters::outgoingPending},
};

std::string publisherOf(const KelReceived& row) {
  return row.incarnation.empty() ? row.publisher : row.publisher + "/" + row.incarnation;
}

void putTexts(Record& record, const char* name, const std::vector<std::string>& texts) {
  const std::vector<std::string_view> views(texts.begin(), texts.end());
  record.setTexts(record.put(name), views);
}

void putNumber(Record& record, const char* name, std::int64_t number) {
  record.putScalar(name, typeLong).value.int64 = number;
}

template <class Row, std::size_t size>
void putNumbers(Record& record, const Column<Row> (&columns)[size], const Row* rows, std::size_t count) {
  for (const Column<Row>& column : columns) {
    auto* const numbers =
        static_cast<std::int64_t*>(record.setArray(record.put(column.name), typeLongArray, count));
    for (std::size_t i = 0; i < count; ++i) numbers[i] = column.of(rows[i]);
  }
}

/// How many of the rows from `from` on fit into one piece.
template <class Row, class Size>
std::size_t fitting(const std::vector<Row>& rows, std::size_t from, Size&& size) {
  std::size_t bytes = 0;
  std::size_t count = 0;
  while (from + count < rows.size() && count < mostRows) {
    bytes += size(rows[from + count]);
    if (count > 0 && bytes > mostBytes) break;
    ++count;
  }
  return count;
}

std::int64_t numberOf(const Record& record, const char* name) {
  const Field* field = record.find(name);
  return field == nullptr || field->type != typeLong ? 0 : field->value.int64;
}

std::vector<std::string> textsOf(const Record& record, const char* name) {
  const Field* field = record.find(name);
  if (field == nullptr || field->type != typeStringArray) return {};
  const auto* texts = static_cast<const char* const*>(field->value.data);
  return {texts, texts + field->count};
}

/// False when a column does not have a number for each row.
template <class Row, std::size_t size>
bool getNumbers(const Record& record, const Column<Row> (&columns)[size], std::vector<Row>& rows) {
  if (rows.empty()) return true;
  for (const Column<Row>& column : columns) {
    const Field* field = record.find(column.name);
    if (field == nullptr || field->type != typeLongArray || field->count != rows.size()) return false;
    const auto* numbers = static_cast<const std::int64_t*>(field->value.data);
    for (std::size_t i = 0; i < rows.size(); ++i) column.of(rows[i]) = numbers[i];
  }
  return true;
}

}  // namespace

std::vector<std::string> encodeLedger(const KelLedger& ledger, std::int64_t answer,
                                      std::int64_t timestampMs) {
  struct Span {
    std::size_t receivedFrom, receivedCount, sentFrom, sentCount;
  };
  std::vector<Span> spans;
  for (std::size_t from = 0; from < ledger.received.size();) {
    const std::size_t count = fitting(ledger.received, from, [](const KelReceived& row) {
      return row.publication.size() + row.publisher.size() + row.incarnation.size();
    });
    spans.push_back({from, count, 0, 0});
    from += count;
  }
  for (std::size_t from = 0; from < ledger.sent.size();) {
    const std::size_t count =
        fitting(ledger.sent, from, [](const KelSent& row) { return row.publication.size(); });
    spans.push_back({0, 0, from, count});
    from += count;
  }
  if (spans.empty()) spans.push_back({0, 0, 0, 0});

  std::vector<std::string> pieces;
  std::vector<std::string> names;
  for (const Span& span : spans) {
    Record record;
    record.setText(record.put("publisher"), ledger.publisher + "/" + ledger.incarnation);
    putNumber(record, "answer", answer);
    putNumber(record, "piece", static_cast<std::int64_t>(pieces.size()));
    putNumber(record, "pieces", static_cast<std::int64_t>(spans.size()));
    if (span.receivedCount > 0) {
      const KelReceived* const rows = &ledger.received[span.receivedFrom];
      names.clear();
      for (std::size_t i = 0; i < span.receivedCount; ++i) names.push_back(rows[i].publication);
      putTexts(record, "received/publication", names);
      names.clear();
      for (std::size_t i = 0; i < span.receivedCount; ++i) names.push_back(publisherOf(rows[i]));
      putTexts(record, "received/publisher", names);
      putNumbers(record, receivedColumns, rows, span.receivedCount);
    }
    if (span.sentCount > 0) {
      const KelSent* const rows = &ledger.sent[span.sentFrom];
      names.clear();
      for (std::size_t i = 0; i < span.sentCount; ++i) names.push_back(rows[i].publication);
      putTexts(record, "sent/publication", names);
      putNumbers(record, sentColumns, rows, span.sentCount);
    }
    pieces.push_back(encodeFields(record, timestampMs));
  }
  return pieces;
}

std::optional<LedgerPiece> decodeLedgerPiece(std::string_view payload) {
  const DecodedRecord decoded = decodeRecord(payload);
  if (!decoded.record) return std::nullopt;
  const Record& record = *decoded.record;
  const Field* publisher = record.find("publisher");
  if (publisher == nullptr || publisher->type != typeString) return std::nullopt;
  const auto id = PublisherId::parse(publisher->text());
  if (!id) return std::nullopt;
  LedgerPiece piece;
  piece.publisher = *id;
  piece.answer = numberOf(record, "answer");
  piece.piece = numberOf(record, "piece");
  piece.pieces = numberOf(record, "pieces");
  if (piece.pieces < 1 || piece.pieces > mostPieces || piece.piece < 0 || piece.piece >= piece.pieces) {
    return std::nullopt;
  }
  std::vector<std::string> publications = textsOf(record, "received/publication");
  const std::vector<std::string> publishers = textsOf(record, "received/publisher");
  if (publications.size() != publishers.size()) return std::nullopt;
  piece.received.resize(publications.size());
  for (std::size_t i = 0; i < publications.size(); ++i) {
    KelReceived& row = piece.received[i];
    row.publication = std::move(publications[i]);
    const auto run = PublisherId::parse(publishers[i]);
    row.publisher = run ? run->name : publishers[i];
    if (run) row.incarnation = run->incarnation;
  }
  publications = textsOf(record, "sent/publication");
  piece.sent.resize(publications.size());
  for (std::size_t i = 0; i < publications.size(); ++i) {
    piece.sent[i].publication = std::move(publications[i]);
  }
  if (!getNumbers(record, receivedColumns, piece.received) || !getNumbers(record, sentColumns, piece.sent)) {
    return std::nullopt;
  }
  return piece;
}

void LedgerCollector::add(LedgerPiece piece) {
  if (piece.answer != answer_) pieces_.clear();
  answer_ = piece.answer;
  const auto pieces = static_cast<std::size_t>(piece.pieces);
  pieces_.insert_or_assign(piece.piece, std::move(piece));
  if (pieces_.size() != pieces) return;
  whole_.emplace();
  whole_->publisher = pieces_.begin()->second.publisher.name;
  whole_->incarnation = pieces_.begin()->second.publisher.incarnation;
  for (auto& [number, each] : pieces_) {
    std::move(each.received.begin(), each.received.end(), std::back_inserter(whole_->received));
    std::move(each.sent.begin(), each.sent.end(), std::back_inserter(whole_->sent));
  }
  pieces_.clear();
}

}  // namespace kel
