// Readings: what the Linux kernel says about this machine, read from /proc and /sys.
//
// Purpose    Honest input for the demonstration: nothing here is made up. What the kernel does not offer
//            stays empty.
// Thread     One thread; each call reads the files anew.
// Errors     Nothing throws; an unreadable file leaves its part at its default.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace liveinput {

struct Load {
  double one = 0;
  double five = 0;
  double fifteen = 0;
  int runnable = 0;  ///< tasks that run or could run
  int total = 0;     ///< tasks in all
};

struct Memory {  // KiB, as the kernel counts
  std::int64_t totalKiB = 0;
  std::int64_t availableKiB = 0;
  std::int64_t swapTotalKiB = 0;
  std::int64_t swapFreeKiB = 0;
};

/// Counters of one core since the start of the system, in clock ticks.
struct CoreTicks {
  std::uint64_t busy = 0;
  std::uint64_t idle = 0;
};

struct Processor {
  CoreTicks all;
  std::vector<CoreTicks> cores;
  int tasksRunning = 0;
  int tasksBlocked = 0;
  std::int64_t bootTimeSeconds = 0;
};

struct Interface {
  std::string name;
  bool up = false;
  int mtu = 0;
  std::int64_t receivedBytes = 0;
  std::int64_t sentBytes = 0;
};

struct Disk {
  std::string name;
  std::int64_t readBytes = 0;
  std::int64_t writtenBytes = 0;
};

struct Identity {
  std::string hostName;
  std::string kernel;
  double uptimeSeconds = 0;
};

// Parsers take the text of the file, so that they can be looked at with any text.
[[nodiscard]] Load parseLoad(std::string_view loadavg);
[[nodiscard]] Memory parseMemory(std::string_view meminfo);
[[nodiscard]] Processor parseProcessor(std::string_view stat);
[[nodiscard]] std::vector<Interface> parseInterfaces(std::string_view netDev);
/// Whole disks that have done something since the start; partitions and empty loop devices are left out.
[[nodiscard]] std::vector<Disk> parseDisks(std::string_view diskstats);

/// Share of time that was not idle between two readings, 0 to 1; 0 when no tick passed.
[[nodiscard]] float useBetween(const CoreTicks& before, const CoreTicks& now);

[[nodiscard]] Load readLoad();
[[nodiscard]] Memory readMemory();
[[nodiscard]] Processor readProcessor();
[[nodiscard]] std::vector<Interface> readInterfaces();
[[nodiscard]] std::vector<Disk> readDisks();
[[nodiscard]] Identity readIdentity();

}  // namespace liveinput
