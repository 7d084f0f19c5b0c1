// AnswerLimit: how often this member speaks to the whole group because somebody asked.
//
// A question costs one message, its answers one from every member to every other. So the first few are
// answered at once, which is all that a start or a look around takes, and then one in each `pause`. Pure; not
// thread-safe: under the session's lock.
#pragma once

#include <chrono>

namespace kel {

class AnswerLimit {
 public:
  using Time = std::chrono::steady_clock::time_point;

  /// Answers are never closer than `gather`, so that many questions become one answer.
  AnswerLimit(int atOnce, std::chrono::milliseconds gather, std::chrono::milliseconds pause)
      : atOnce_(atOnce), gather_(gather), pause_(pause), left_(atOnce) {}

  [[nodiscard]] bool may(Time now) {
    while (left_ < atOnce_ && now - grown_ >= pause_) {
      grown_ += pause_;
      ++left_;
    }
    return left_ > 0 && (!used_ || now - last_ >= gather_);
  }
  void use(Time now) {
    if (left_ == atOnce_) grown_ = now;
    if (left_ > 0) --left_;
    used_ = true;
    last_ = now;
  }

 private:
  const int atOnce_;
  const std::chrono::milliseconds gather_;
  const std::chrono::milliseconds pause_;
  int left_;
  bool used_ = false;
  Time last_;
  Time grown_;
};

}  // namespace kel
