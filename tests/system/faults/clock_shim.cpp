// Gives one process a wall clock of its own: the true one plus the seconds that stand in the file which
// STEPPED_CLOCK names, 64 bits, mapped into memory. Loaded first (LD_PRELOAD). It allocates nothing, so it
// goes with every allocator; the monotonic clock stays.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <ctime>

namespace {

const std::atomic<std::int64_t>* map() {
  const char* const path = std::getenv("STEPPED_CLOCK");
  const int file = path != nullptr ? ::open(path, O_RDONLY | O_CLOEXEC) : -1;
  if (file < 0) return nullptr;
  void* const memory = ::mmap(nullptr, sizeof(std::int64_t), PROT_READ, MAP_SHARED, file, 0);
  ::close(file);
  return memory == MAP_FAILED ? nullptr : static_cast<const std::atomic<std::int64_t>*>(memory);
}

std::int64_t offset() {
  static const std::atomic<std::int64_t>* const seconds = map();
  return seconds != nullptr ? seconds->load() : 0;
}

}  // namespace

extern "C" int clock_gettime(clockid_t clock, timespec* time) noexcept {
  const long result = ::syscall(SYS_clock_gettime, clock, time);
  if (result == 0 && (clock == CLOCK_REALTIME || clock == CLOCK_REALTIME_COARSE)) time->tv_sec += offset();
  return static_cast<int>(result);
}

extern "C" int gettimeofday(timeval* time, void* /*zone*/) noexcept {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  time->tv_sec = now.tv_sec;
  time->tv_usec = now.tv_nsec / 1000;
  return 0;
}

extern "C" std::time_t time(std::time_t* seconds) noexcept {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  if (seconds != nullptr) *seconds = now.tv_sec;
  return now.tv_sec;
}
