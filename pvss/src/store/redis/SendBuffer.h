// SendBuffer: the bytes on their way to a server, appended behind, sent from the front.
//
// Purpose    Under a load that never lets it run empty, what has been sent goes all the same: the memory is
//            bounded by what is still unsent, not by what has ever been sent.
// Cost       A byte is moved at most once for every byte that has been sent.
// Thread     One at a time.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace pvss::redis {

class SendBuffer {
 public:
  /// Append to it, nothing else. Valid until the next sent() or clear().
  std::string& tail() { return bytes_; }
  [[nodiscard]] std::string_view unsent() const { return std::string_view(bytes_).substr(sent_); }
  [[nodiscard]] bool empty() const { return sent_ == bytes_.size(); }
  /// Memory held, in bytes.
  [[nodiscard]] std::size_t held() const { return bytes_.capacity(); }

  /// The first `count` bytes of unsent() have gone.
  void sent(std::size_t count) {
    sent_ += count;
    if (empty()) {
      clear();
    } else if (sent_ >= kKept && sent_ >= bytes_.size() - sent_) {
      bytes_.erase(0, sent_);
      sent_ = 0;
    }
  }
  void clear() {
    if (bytes_.capacity() > kKept) {
      bytes_ = std::string();
    }
    bytes_.clear();
    sent_ = 0;
  }

 private:
  static constexpr std::size_t kKept = std::size_t{256} * 1024;  // not given back when it is empty

  std::string bytes_;
  std::size_t sent_ = 0;
};

}  // namespace pvss::redis
