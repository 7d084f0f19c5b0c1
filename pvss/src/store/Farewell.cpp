#include "store/Farewell.h"

#include <sys/socket.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <cstring>

namespace pvss::farewell {
namespace {

enum State : std::uint8_t { none, ready, sending, halfSent, said };

// What is said belongs to whoever moves the state away from `ready`.
std::atomic<std::uint8_t> state{none};
static_assert(std::atomic<std::uint8_t>::is_always_lock_free, "used in signal handlers");
int link = -1;
std::size_t size = 0;
std::array<char, 512> words{};

}  // namespace

bool offer(int socket, std::string_view bytes) noexcept {
  if (state.load() != none || bytes.size() > words.size()) return false;
  link = socket;
  size = bytes.size();
  std::memcpy(words.data(), bytes.data(), size);
  state.store(ready);
  return true;
}

void withdraw() noexcept {
  std::uint8_t now = state.load();
  while (now != said && !state.compare_exchange_weak(now, none)) {
  }
}

bool begin() noexcept {
  std::uint8_t now = state.load();
  while (now != said && !state.compare_exchange_weak(now, sending)) {
  }
  return now != said;
}

void end(bool whole) noexcept {
  state.store(whole ? ready : halfSent);
}

void say() noexcept {
  std::uint8_t expected = ready;
  if (!state.compare_exchange_strong(expected, said)) return;
  // Whether it went is nobody's concern any more.
  [[maybe_unused]] const ssize_t sent = ::send(link, words.data(), size, MSG_DONTWAIT | MSG_NOSIGNAL);
}

}  // namespace pvss::farewell
