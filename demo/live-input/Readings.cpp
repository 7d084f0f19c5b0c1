#include "Readings.h"

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace liveinput {
namespace {

std::string readFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

std::string readLine(const std::string& path) {
  std::string line = readFile(path);
  line.resize(std::min(line.find('\n'), line.size()));
  return line;
}

std::vector<std::string_view> split(std::string_view text, std::string_view separators) {
  std::vector<std::string_view> words;
  while (true) {
    const auto begin = text.find_first_not_of(separators);
    if (begin == std::string_view::npos) {
      return words;
    }
    text.remove_prefix(begin);
    const auto end = std::min(text.find_first_of(separators), text.size());
    words.push_back(text.substr(0, end));
    text.remove_prefix(end);
  }
}

template <typename Number>
Number numberOf(std::string_view word) {
  Number number{};
  std::from_chars(word.data(), word.data() + word.size(), number);
  return number;
}

/// Column `index` of a line as a number, 0 when the line is shorter.
std::int64_t column(const std::vector<std::string_view>& words, std::size_t index) {
  return index < words.size() ? numberOf<std::int64_t>(words[index]) : 0;
}

CoreTicks ticksOf(const std::vector<std::string_view>& words) {
  // user nice system idle iowait irq softirq steal; guest time is part of user already.
  CoreTicks ticks;
  for (std::size_t index = 1; index <= 8; ++index) {
    const auto count = static_cast<std::uint64_t>(column(words, index));
    (index == 4 || index == 5 ? ticks.idle : ticks.busy) += count;
  }
  return ticks;
}

}  // namespace

Load parseLoad(std::string_view loadavg) {
  // "0.20 0.18 0.12 1/80 11206"
  const auto words = split(loadavg, " \n");
  Load load;
  if (words.size() < 4) {
    return load;
  }
  load.one = numberOf<double>(words[0]);
  load.five = numberOf<double>(words[1]);
  load.fifteen = numberOf<double>(words[2]);
  const auto tasks = split(words[3], "/");
  load.runnable = static_cast<int>(column(tasks, 0));
  load.total = static_cast<int>(column(tasks, 1));
  return load;
}

Memory parseMemory(std::string_view meminfo) {
  Memory memory;
  for (const std::string_view line : split(meminfo, "\n")) {
    const auto words = split(line, " :\t");
    if (words.size() < 2) {
      continue;
    }
    const std::int64_t number = column(words, 1);
    if (words[0] == "MemTotal") {
      memory.totalKiB = number;
    } else if (words[0] == "MemAvailable") {
      memory.availableKiB = number;
    } else if (words[0] == "SwapTotal") {
      memory.swapTotalKiB = number;
    } else if (words[0] == "SwapFree") {
      memory.swapFreeKiB = number;
    }
  }
  return memory;
}

Processor parseProcessor(std::string_view stat) {
  Processor processor;
  for (const std::string_view line : split(stat, "\n")) {
    if (line.starts_with("intr") || line.starts_with("softirq")) {
      continue;  // long, and not needed
    }
    const auto words = split(line, " ");
    if (words[0] == "cpu") {
      processor.all = ticksOf(words);
    } else if (words[0].starts_with("cpu")) {
      processor.cores.push_back(ticksOf(words));
    } else if (words[0] == "btime") {
      processor.bootTimeSeconds = column(words, 1);
    } else if (words[0] == "procs_running") {
      processor.tasksRunning = static_cast<int>(column(words, 1));
    } else if (words[0] == "procs_blocked") {
      processor.tasksBlocked = static_cast<int>(column(words, 1));
    }
  }
  return processor;
}

std::vector<Interface> parseInterfaces(std::string_view netDev) {
  std::vector<Interface> interfaces;
  for (const std::string_view line : split(netDev, "\n")) {
    const auto colon = line.find(':');
    if (colon == std::string_view::npos) {
      continue;  // the two lines of headings
    }
    const auto names = split(line.substr(0, colon), " ");
    const auto words = split(line.substr(colon + 1), " ");
    if (names.empty()) {
      continue;
    }
    Interface interface;
    interface.name = std::string(names[0]);
    interface.receivedBytes = column(words, 0);
    interface.sentBytes = column(words, 8);
    interfaces.push_back(std::move(interface));
  }
  std::sort(interfaces.begin(), interfaces.end(),
            [](const Interface& left, const Interface& right) { return left.name < right.name; });
  return interfaces;
}

std::vector<Disk> parseDisks(std::string_view diskstats) {
  // Sectors of this file are 512 bytes whatever the device's own are.
  constexpr std::int64_t sectorBytes = 512;
  std::vector<Disk> disks;
  for (const std::string_view line : split(diskstats, "\n")) {
    const auto words = split(line, " ");
    if (words.size() < 10) {
      continue;
    }
    Disk disk;
    disk.name = std::string(words[2]);
    disk.readBytes = column(words, 5) * sectorBytes;
    disk.writtenBytes = column(words, 9) * sectorBytes;
    const bool partition = !disks.empty() && disk.name.starts_with(disks.back().name);
    if (!partition && (disk.readBytes != 0 || disk.writtenBytes != 0)) {
      disks.push_back(std::move(disk));
    }
  }
  return disks;
}

float useBetween(const CoreTicks& before, const CoreTicks& now) {
  // The kernel's idle counters may step back a little; such a reading counts as no time.
  const auto grown = [](std::uint64_t from, std::uint64_t to) { return to > from ? to - from : 0; };
  const std::uint64_t busy = grown(before.busy, now.busy);
  const std::uint64_t idle = grown(before.idle, now.idle);
  return busy + idle == 0 ? 0.0F : static_cast<float>(busy) / static_cast<float>(busy + idle);
}

Load readLoad() {
  return parseLoad(readFile("/proc/loadavg"));
}

Memory readMemory() {
  return parseMemory(readFile("/proc/meminfo"));
}

Processor readProcessor() {
  return parseProcessor(readFile("/proc/stat"));
}

std::vector<Interface> readInterfaces() {
  std::vector<Interface> interfaces = parseInterfaces(readFile("/proc/net/dev"));
  for (Interface& interface : interfaces) {
    const std::string folder = "/sys/class/net/" + interface.name;
    const std::string state = readLine(folder + "/operstate");
    const std::string flags = readLine(folder + "/flags");
    // The loopback interface says "unknown"; its flag IFF_UP (1) tells.
    const bool administrativelyUp = (std::strtoul(flags.c_str(), nullptr, 16) & 1U) != 0;
    interface.up = state == "up" || (state == "unknown" && administrativelyUp);
    interface.mtu = numberOf<int>(readLine(folder + "/mtu"));
  }
  return interfaces;
}

std::vector<Disk> readDisks() {
  std::vector<Disk> disks = parseDisks(readFile("/proc/diskstats"));
  std::erase_if(disks, [](const Disk& disk) {
    std::error_code ignored;
    return !std::filesystem::exists("/sys/block/" + disk.name, ignored);
  });
  return disks;
}

Identity readIdentity() {
  Identity identity;
  identity.hostName = readLine("/proc/sys/kernel/hostname");
  identity.kernel = readLine("/proc/sys/kernel/osrelease");
  identity.uptimeSeconds = numberOf<double>(readLine("/proc/uptime"));
  return identity;
}

}  // namespace liveinput
