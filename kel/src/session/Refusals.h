// Refusals: what a broker refuses of one kind, said in one line, and when to ask again.
//
// Rights are often granted while everybody runs, and a broker tells nobody: so who was refused asks again.
// What is granted is a hint that more may be: everything else that was refused is then asked for at once.
// Otherwise the sign of life could be back seconds before the records, and what the broker had kept passed
// for new. Not thread-safe: under the session's lock.
#pragma once

#include <chrono>
#include <cstdint>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace kel {

/// How often something refused was granted, to one member by one broker.
using Grants = std::uint64_t;

class Refusals {
 public:
  using Time = std::chrono::steady_clock::time_point;

  static constexpr std::chrono::milliseconds gather{300};     ///< for many refusals to become one line
  static constexpr std::chrono::seconds reminder{60};         ///< between two lines
  static constexpr std::chrono::milliseconds hintPause{500};  ///< between two askings because of a grant

  /// `granted` is the line when nothing of the kind is refused any more; `grants` outlives this, and is
  /// shared by all kinds.
  Refusals(std::string granted, Grants& grants) : grantedLine_(std::move(granted)), grants_(grants) {}

  /// `sentence` says what is refused and why, `right` the right that may be missing ("to read TOPIC"); empty
  /// when it is none. True when `key` was not refused so far.
  bool refused(const std::string& key, std::string sentence, std::string right, Time now);
  void granted(const std::string& key);
  /// Nobody asks for it any more.
  void forget(const std::string& key);
  /// The link is gone, and everything will be asked for again by itself.
  void linkDown();

  /// Says what is to be said, and gives what is to be asked for again: every `pause`, and after a grant.
  std::vector<std::string> due(Time now, std::chrono::nanoseconds pause);

  [[nodiscard]] bool any() const { return !keys_.empty(); }

 private:
  void say(Time now, std::chrono::nanoseconds pause);

  const std::string grantedLine_;
  Grants& grants_;
  Grants heeded_ = 0;  ///< grants when last asked
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
