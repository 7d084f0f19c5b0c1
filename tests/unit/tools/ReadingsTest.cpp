#include "Readings.h"

#include <gtest/gtest.h>
#include <kel/KelData.h>

#include <algorithm>
#include <set>

#include "Records.h"

namespace liveinput {
namespace {

TEST(Readings, ReadsLoadAndTasks) {
  const Load load = parseLoad("0.20 1.18 12.12 3/80 11206\n");
  EXPECT_DOUBLE_EQ(load.one, 0.2);
  EXPECT_DOUBLE_EQ(load.five, 1.18);
  EXPECT_DOUBLE_EQ(load.fifteen, 12.12);
  EXPECT_EQ(load.runnable, 3);
  EXPECT_EQ(load.total, 80);
}

TEST(Readings, ReadsMemory) {
  const Memory memory =
      parseMemory("MemTotal:  16384 kB\nMemFree: 1 kB\nMemAvailable:    8192 kB\nSwapTotal: 4 kB\n");
  EXPECT_EQ(memory.totalKiB, 16384);
  EXPECT_EQ(memory.availableKiB, 8192);
  EXPECT_EQ(memory.swapTotalKiB, 4);
  EXPECT_EQ(memory.swapFreeKiB, 0);
}

TEST(Readings, SeparatesBusyFromIdleTicksOfEachCore) {
  const Processor processor = parseProcessor(
      "cpu  10 1 5 100 20 2 2 3 9 9\ncpu0 4 0 2 50 10 1 1 1 0 0\ncpu1 6 1 3 50 10 1 1 2 0 0\n"
      "intr 5 1 2 3\nbtime 1700000000\nprocs_running 2\nprocs_blocked 1\n");
  EXPECT_EQ(processor.all.busy, 23U) << "guest time is part of user already";
  EXPECT_EQ(processor.all.idle, 120U);
  ASSERT_EQ(processor.cores.size(), 2U);
  EXPECT_EQ(processor.cores[1].busy, 14U);
  EXPECT_EQ(processor.bootTimeSeconds, 1700000000);
  EXPECT_EQ(processor.tasksRunning, 2);
  EXPECT_EQ(processor.tasksBlocked, 1);
}

TEST(Readings, SharesUseBetweenTwoReadings) {
  EXPECT_FLOAT_EQ(useBetween({10, 10}, {13, 11}), 0.75F);
  EXPECT_FLOAT_EQ(useBetween({10, 10}, {10, 10}), 0.0F);
  EXPECT_FLOAT_EQ(useBetween({10, 10}, {12, 9}), 1.0F) << "a counter that steps back counts as no time";
}

TEST(Readings, ReadsInterfacesSortedByName) {
  const auto interfaces = parseInterfaces(
      "Inter-|   Receive  |  Transmit\n face |bytes |bytes\n    lo:    5056 61 0 0 0 0 0 0     77 61 0 0 0 0 "
      "0 0\n"
      "  eth0:116647765 4470 0 0 0 0 0 0 335748 3583 0 0 0 0 0 0\n");
  ASSERT_EQ(interfaces.size(), 2U);
  EXPECT_EQ(interfaces[0].name, "eth0");
  EXPECT_EQ(interfaces[0].receivedBytes, 116647765);
  EXPECT_EQ(interfaces[0].sentBytes, 335748);
  EXPECT_EQ(interfaces[1].sentBytes, 77);
}

TEST(Readings, LeavesOutPartitionsAndIdleDisks) {
  const auto disks = parseDisks(
      " 7 0 loop0 0 0 0 0 0 0 0 0 0 0 0\n 254 0 vda 5 2 100 1 6 1 200 7 0 1 2\n 254 1 vda1 5 2 90 1 6 1 190 "
      "7 0 1 2\n");
  ASSERT_EQ(disks.size(), 1U);
  EXPECT_EQ(disks[0].name, "vda");
  EXPECT_EQ(disks[0].readBytes, 51200);
  EXPECT_EQ(disks[0].writtenBytes, 102400);
}

TEST(Readings, AnswersDefaultsForTextsThatAreNone) {
  EXPECT_EQ(parseLoad("").total, 0);
  EXPECT_EQ(parseMemory("MemTotal\n\n:").totalKiB, 0);
  EXPECT_TRUE(parseProcessor("cpu").cores.empty());
  EXPECT_TRUE(parseInterfaces("::\n:").empty());
  EXPECT_TRUE(parseDisks("1 2").empty());
}

TEST(Machine, PublishesEveryKelTypeFromThisMachine) {
  std::set<int> types;
  Machine machine;
  std::vector<std::string> names;
  for (const NamedRecord& each : machine.read()) {
    names.push_back(each.publication);
    for (std::size_t index = 0; index < each.record.size(); ++index) {
      types.insert(each.record.getValueType(each.record.fieldName(index)));
    }
  }
  EXPECT_EQ(names, publicationNames());
  EXPECT_EQ(types, (std::set<int>{1, 2, 3, 4, 5, 6, 7, 8, 10, 20, 30, 40, 50, 60, 70, 80}));
}

}  // namespace
}  // namespace liveinput
