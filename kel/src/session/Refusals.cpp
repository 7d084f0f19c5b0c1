#include "session/Refusals.h"

#include <utility>

#include "Log.h"

namespace kel {

bool Refusals::refused(const std::string& key, std::string sentence, std::string right, Time now) {
  if (keys_.empty()) {
    since_ = now;
    asked_ = now;
    heeded_ = grants_;
    sentence_ = std::move(sentence);
    right_ = std::move(right);
  }
  return keys_.insert(key).second;
}

void Refusals::granted(const std::string& key) {
  if (keys_.erase(key) == 0) return;
  ++grants_;
  if (!keys_.empty()) return;
  if (std::exchange(open_, false)) log(LogLevel::info, grantedLine_);
}

void Refusals::forget(const std::string& key) {
  keys_.erase(key);
}

void Refusals::linkDown() {
  keys_.clear();
}

std::vector<std::string> Refusals::due(Time now, std::chrono::nanoseconds pause) {
  if (keys_.empty()) return {};
  say(now, pause);
  const bool hint = heeded_ != grants_ && now - asked_ >= hintPause;
  if (!hint && now - asked_ < pause) return {};
  asked_ = now;
  heeded_ = grants_;
  return {keys_.begin(), keys_.end()};
}

void Refusals::say(Time now, std::chrono::nanoseconds pause) {
  if (now - since_ < gather || (everTold_ && now - told_ < reminder)) return;
  everTold_ = true;
  open_ = true;
  told_ = now;
  std::string line = sentence_;
  if (keys_.size() > 1) line += " (and " + std::to_string(keys_.size() - 1) + " more like it)";
  line += right_.empty() ? "; asking again every "
                         : "; has this user the right " + right_ + "? Asking again every ";
  line += std::to_string(std::chrono::duration_cast<std::chrono::seconds>(pause).count()) + " s";
  log(LogLevel::warn, line);
}

}  // namespace kel
