// OutageReport: decides which lines about a lost or unreachable broker a person gets to read.
//
// Purpose    One clear line when the broker cannot be reached or is lost, one when it is back, a reminder now
//            and then, and never a flood, however the link behaves.
// Thread     None of its own; one thread uses it. Time is handed in.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace kel::mqtt {

class OutageReport {
 public:
  using TimePoint = std::chrono::steady_clock::time_point;

  static constexpr std::chrono::seconds kReminder{60};    ///< between two lines with the same reason
  static constexpr std::chrono::seconds kNewReason{5};    ///< between two lines with different reasons
  static constexpr std::chrono::seconds kBudgetSpan{60};  ///< at most kBudget lines in such a span
  static constexpr int kBudget = 10;

  /// `address` is how the broker is named in every line; it holds no secret.
  explicit OutageReport(std::string address) : address_(std::move(address)) {}

  /// An attempt has failed. The line to print, or nothing when it would only repeat what was said.
  std::optional<std::string> failed(std::string_view reason, TimePoint now);
  /// A link that was up is gone.
  std::optional<std::string> lost(std::string_view reason, TimePoint now);
  /// The link is up: nothing is said about a first success, one line about a return.
  std::optional<std::string> up(TimePoint now);

 private:
  std::optional<std::string> say(std::string line, TimePoint now);

  const std::string address_;
  bool out_ = false;
  std::uint64_t attempts_ = 0;  ///< failed in the present outage
  TimePoint outSince_{};
  TimePoint lastLine_{};
  std::string lastReason_;
  TimePoint spanStart_{};
  int spanLines_ = 0;
  std::uint64_t leftOut_ = 0;
};

}  // namespace kel::mqtt
