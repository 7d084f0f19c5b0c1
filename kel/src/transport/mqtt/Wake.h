// Wake: what another thread pulls to end a thread's wait in poll().
//
// Thread     notify() from any thread; descriptor() and drain() belong to the thread that waits.
// Errors     The constructor throws std::system_error when the process has no descriptor left.
#pragma once

#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <system_error>

namespace kel::mqtt {

class Wake {
 public:
  Wake() : descriptor_(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {
    if (descriptor_ < 0) {
      throw std::system_error(errno, std::generic_category(), "eventfd");
    }
  }
  ~Wake() { ::close(descriptor_); }
  Wake(const Wake&) = delete;
  Wake& operator=(const Wake&) = delete;

  void notify() const noexcept {
    const std::uint64_t one = 1;
    // It can fail only when the counter is full: then the waiting thread is awake already.
    [[maybe_unused]] const auto written = ::write(descriptor_, &one, sizeof one);
  }
  void drain() const noexcept {
    std::uint64_t count = 0;
    [[maybe_unused]] const auto got = ::read(descriptor_, &count, sizeof count);
  }
  [[nodiscard]] int descriptor() const noexcept { return descriptor_; }

 private:
  const int descriptor_;
};

}  // namespace kel::mqtt
