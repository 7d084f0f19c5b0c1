#include "transport/mqtt/OutageReport.h"

namespace kel::mqtt {

namespace {

std::string seconds(std::chrono::steady_clock::duration span) {
  return std::to_string(std::chrono::duration_cast<std::chrono::seconds>(span).count()) + " s";
}

}  // namespace

std::optional<std::string> OutageReport::failed(std::string_view reason, TimePoint now) {
  ++attempts_;
  if (!out_) {
    out_ = true;
    outSince_ = now;
    lastReason_ = reason;
    lastLine_ = now;
    return say(address_ + " cannot be reached: " + lastReason_ + "; trying again until it can", now);
  }
  const auto silence = now - lastLine_;
  if (silence < kReminder && (reason == lastReason_ || silence < kNewReason)) {
    return std::nullopt;
  }
  lastReason_ = reason;
  lastLine_ = now;
  return say(address_ + " still cannot be reached after " + std::to_string(attempts_) + " attempts in " +
                 seconds(now - outSince_) + ": " + lastReason_,
             now);
}

std::optional<std::string> OutageReport::lost(std::string_view reason, TimePoint now) {
  out_ = true;
  attempts_ = 0;
  outSince_ = now;
  lastReason_ = reason;
  lastLine_ = now;
  return say(address_ + " is lost: " + lastReason_ + "; trying to reach it again", now);
}

std::optional<std::string> OutageReport::up(TimePoint now) {
  if (!out_) {
    return std::nullopt;
  }
  out_ = false;
  std::string line = address_ + " is back after " + seconds(now - outSince_);
  if (attempts_ > 0) {
    line += " (" + std::to_string(attempts_) + (attempts_ == 1 ? " failed attempt)" : " failed attempts)");
  }
  attempts_ = 0;
  return say(std::move(line), now);
}

std::optional<std::string> OutageReport::say(std::string line, TimePoint now) {
  if (spanLines_ == 0 || now - spanStart_ >= kBudgetSpan) {
    spanStart_ = now;
    spanLines_ = 0;
  }
  if (spanLines_ >= kBudget) {
    ++leftOut_;
    return std::nullopt;
  }
  ++spanLines_;
  if (leftOut_ > 0) {
    line += " (" + std::to_string(leftOut_) + " lines left out before this one)";
    leftOut_ = 0;
  }
  return line;
}

}  // namespace kel::mqtt
