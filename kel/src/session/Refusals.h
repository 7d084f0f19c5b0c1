// Refusals: what a broker refuses of one kind, said in one line, and when to ask again.
//
// Rights are often granted while everybody runs, and a broker tells nobody: so who was refused asks again.
// Not thread-safe: under the session's lock.
#pragma once

#include <chrono>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace kel {

class Refusals {
 public:
  using Time = std::chrono::steady_clock::time_point;

  static constexpr std::chrono::milliseconds gather{300};  ///< for many refusals to become one line
  static constexpr std::chrono::seconds reminder{60};      ///< between two lines

  /// `granted` is the line when nothing of the kind is refused any more.
  explicit Refusals(std::string granted) : grantedLine_(std::move(granted)) {}

  /// `sentence` says what is refused and why, `right` the right that may be missing ("to read TOPIC").
  /// True when `key` was not refused so far.
  bool refused(const std::string& key, std::string sentence, std::string right, Time now);
  void granted(const std::string& key);
  /// Nobody asks for it any more.
  void forget(const std::string& key);
  /// The link is gone, and everything will be asked for again by itself.
  void linkDown();

  /// Says what is to be said, and gives what is to be asked for again every `pause`.
  std::vector<std::string> due(Time now, std::chrono::nanoseconds pause);

  [[nodiscard]] bool any() const { return !keys_.empty(); }

 private:
  void say(Time now, std::chrono::nanoseconds pause);

  const std::string grantedLine_;
  std::set<std::string, std::less<>> keys_;
  std::string sentence_;  ///< of the first
  std::string right_;
  Time since_;
  Time asked_;
  Time told_;
  bool everTold_ = false;
  bool open_ = false;  ///< told, and the end of it not yet
};

}  // namespace kel
