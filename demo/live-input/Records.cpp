#include "Records.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <memory>

namespace liveinput {
namespace {

template <typename Number>
Number limited(std::int64_t value) {
  return static_cast<Number>(std::clamp<std::int64_t>(value, std::numeric_limits<Number>::min(),
                                                      std::numeric_limits<Number>::max()));
}

template <typename Element, typename Source, typename Pick>
void insertArray(KelData& record, const char* tag, const std::vector<Source>& source, Pick pick) {
  // Not a vector: one of bool has no elements to point at.
  const auto elements = std::make_unique<Element[]>(source.size());
  for (std::size_t index = 0; index < source.size(); ++index) {
    elements[index] = pick(source[index]);
  }
  record.insert(static_cast<const Element*>(elements.get()), static_cast<int>(source.size()), tag);
}

constexpr std::int64_t bytesPerKiB = 1024;

KelData identity(const Processor& processor) {
  const Identity is = readIdentity();
  KelData record;
  record.insert(is.hostName.c_str(), "hostName");
  record.insert(is.kernel.c_str(), "kernel");
  record.insert(true, "running");  // this program is, or nobody could say so
  record.insert(limited<short>(static_cast<std::int64_t>(processor.cores.size())), "cores");
  record.insert(static_cast<long long>(processor.bootTimeSeconds), "bootTime");
  return record;
}

/// The record's unnamed value: seconds since the system started.
KelData uptime() {
  KelData record;
  record.insert(readIdentity().uptimeSeconds, "");
  return record;
}

KelData load(const Processor& processor) {
  const Load is = readLoad();
  const double averages[] = {is.one, is.five, is.fifteen};
  const short states[] = {limited<short>(processor.tasksRunning), limited<short>(processor.tasksBlocked)};
  KelData record;
  record.insert(static_cast<float>(is.one), "one");
  record.insert(averages, 3, "averages");
  record.insert(is.total, "tasks");
  record.insert(states, 2, "runningAndBlocked");
  return record;
}

KelData memory() {
  const Memory is = readMemory();
  const double used =
      is.totalKiB == 0 ? 0 : 1 - static_cast<double>(is.availableKiB) / static_cast<double>(is.totalKiB);
  KelData record;
  record.insert(static_cast<long long>(is.totalKiB), "totalKiB");
  record.insert(static_cast<long long>(is.availableKiB), "availableKiB");
  record.insert(used, "used");
  record.insert(static_cast<unsigned char>(std::lround(used * 100)), "usedPercent");
  record.insert(is.swapTotalKiB != is.swapFreeKiB, "swapping");
  return record;
}

KelData network() {
  const std::vector<Interface> is = readInterfaces();
  KelData record;
  insertArray<std::string>(record, "names", is, [](const Interface& each) { return each.name; });
  insertArray<bool>(record, "up", is, [](const Interface& each) { return each.up; });
  insertArray<int>(record, "mtu", is, [](const Interface& each) { return each.mtu; });
  // KiB, because an element keeps 32 bits of a long.
  insertArray<long long>(record, "receivedKiB", is,
                         [](const Interface& each) { return each.receivedBytes / bytesPerKiB; });
  insertArray<long long>(record, "sentKiB", is,
                         [](const Interface& each) { return each.sentBytes / bytesPerKiB; });
  return record;
}

KelData disk() {
  const std::vector<Disk> is = readDisks();
  KelData record;
  insertArray<std::string>(record, "names", is, [](const Disk& each) { return each.name; });
  insertArray<long long>(record, "readKiB", is,
                         [](const Disk& each) { return each.readBytes / bytesPerKiB; });
  insertArray<long long>(record, "writtenKiB", is,
                         [](const Disk& each) { return each.writtenBytes / bytesPerKiB; });
  return record;
}

}  // namespace

Machine::Machine() : last(readProcessor()) {}

KelData Machine::cpu() {
  const Processor now = readProcessor();
  std::vector<float> uses;
  for (std::size_t core = 0; core < now.cores.size(); ++core) {
    // A core that came in just now has no previous reading.
    uses.push_back(core < last.cores.size() ? useBetween(last.cores[core], now.cores[core]) : 0.0F);
  }
  KelData record;
  record.insert(useBetween(last.all, now.all), "use");
  insertArray<float>(record, "coreUse", uses, [](float use) { return use; });
  insertArray<unsigned char>(record, "corePercent", uses,
                             [](float use) { return static_cast<unsigned char>(std::lround(use * 100)); });
  insertArray<bool>(record, "coreBusy", uses, [](float use) { return use > 0.9F; });
  last = now;
  return record;
}

std::vector<NamedRecord> Machine::read() {
  KelData use = cpu();  // keeps the new counters, which the others show
  return {{"machine/identity", identity(last)},
          {"machine/uptime", uptime()},
          {"machine/load", load(last)},
          {"machine/memory", memory()},
          {"machine/cpu", std::move(use)},
          {"machine/network", network()},
          {"machine/disk", disk()}};
}

std::vector<std::string> publicationNames() {
  return {"machine/identity", "machine/uptime",  "machine/load", "machine/memory",
          "machine/cpu",      "machine/network", "machine/disk"};
}

}  // namespace liveinput
