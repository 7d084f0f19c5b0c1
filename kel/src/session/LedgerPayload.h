// What a ledger carries: Sparkplug payloads, each a bounded piece of it, with a column in each metric.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "kel/KelLedger.h"
#include "wire/Topics.h"

namespace kel {

/// How the payload of a probe that also asks for ledgers ends.
inline constexpr std::string_view ledgerWanted = " ledger";

/// One payload; all of one answer have the same number of pieces.
struct LedgerPiece {
  PublisherId publisher;
  std::int64_t answer = 0;  ///< counts the answers of this process
  std::int64_t piece = 0;   ///< from 0
  std::int64_t pieces = 1;
  std::vector<KelReceived> received;
  std::vector<KelSent> sent;
};

/// The ledger in pieces of bounded size, at least one.
[[nodiscard]] std::vector<std::string> encodeLedger(const KelLedger& ledger, std::int64_t answer,
                                                    std::int64_t timestampMs);
/// Nothing when it is not a piece of a ledger.
[[nodiscard]] std::optional<LedgerPiece> decodeLedgerPiece(std::string_view payload);

/// Puts the newest answer of one process together.
class LedgerCollector {
 public:
  void add(LedgerPiece piece);
  /// The newest answer that has come whole; nothing before.
  [[nodiscard]] const std::optional<KelLedger>& ledger() const { return whole_; }

 private:
  std::int64_t answer_ = 0;
  std::map<std::int64_t, LedgerPiece> pieces_;
  std::optional<KelLedger> whole_;
};

}  // namespace kel
