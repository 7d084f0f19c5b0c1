// A manager on a plant in memory, driven step by step.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "pvss/BitVar.h"
#include "pvss/DpMsgAnswer.h"
#include "pvss/FloatVar.h"
#include "pvss/HotLinkWaitForAnswer.h"
#include "pvss/IntegerVar.h"
#include "pvss/Manager.h"
#include "pvss/TextVar.h"
#include "pvss/testing/MemoryPlant.h"
#include "store/ValueCodec.h"

namespace pvss {

using testing::MemoryPlant;

inline std::string textOf(const DpVCItem& item) {
  const Variable* const value = item.getValuePtr();
  if (value == nullptr) {
    return "-";
  }
  return value->isA() == TIME_VAR
             ? std::to_string(static_cast<const TimeVar*>(value)->getValue().toMilliseconds())
             : valueText(*value);
}

/// Writes down the values of each callback, comma-separated.
class Notes : public HotLinkWaitForAnswer {
 public:
  using HotLinkWaitForAnswer::hotLinkCallBack;
  void hotLinkCallBack(DpMsgAnswer& answer) override {
    std::string line = "answer";
    for (AnswerGroup* group = answer.getFirstGroup(); group != nullptr; group = answer.getNextGroup()) {
      for (const AnswerItem* item = group->getFirstItem(); item != nullptr; item = group->getNextItem()) {
        line += " " + textOf(*item);
      }
    }
    lines.push_back(line);
  }
  void hotLinkCallBack(DpHLGroup& group) override {
    std::string line = "hotlink";
    for (const DpVCItem* item = group.getFirstItem(); item != nullptr; item = group.getNextItem()) {
      line += " " + textOf(*item);
    }
    lines.push_back(line);
  }
  std::vector<std::string> lines;
};

class ManagerFixture : public ::testing::Test {
 protected:
  explicit ManagerFixture(const std::string& text = "elements: {A.x: float, A.y: int, A.t: text}")
      : plant(std::make_unique<MemoryPlant>(text)) {}
  ~ManagerFixture() override {
    manager.reset();
    plant.reset();
  }

  void connect() {
    manager = std::make_unique<Manager>(ManagerIdentifier(0, API_MAN, 7));
    manager->connectToData(3, nullptr, 0);
  }
  void start() {
    connect();
    dispatch();
    ASSERT_EQ(Manager::managerState, Manager::STATE_RUNNING);
  }
  /// Everything that can happen now.
  static void dispatch() {
    for (int round = 0; round < 5; ++round) {
      long sec = 0;
      long usec = 0;
      Manager::dispatch(sec, usec);
    }
  }
  static DpIdentifier id(const std::string& name) {
    DpIdentifier found;
    EXPECT_TRUE(Manager::getId(name.c_str(), found)) << name;
    return found;
  }
  static void follow(const std::string& name, Notes& notes) {
    Manager::dpConnect(id(name), Manager::eventId, &notes, 0);
  }
  static void set(const std::string& name, const Variable& value, std::int64_t timeMs) {
    DpIdValueList list;
    list.append(id(name), value);
    Manager::dpSetTimed(TimeVar(PVSSTime::fromMilliseconds(timeMs)), list, Manager::eventId, nullptr, 1);
  }
  static void expectBalance() {
    const Counters counters = Manager::getCounters();
    EXPECT_EQ(counters.queued, counters.confirmed + counters.coalesced + counters.dropped +
                                   counters.rejected + counters.pending);
  }
  double valueOf(const std::string& name) const {
    return static_cast<const FloatVar&>(*plant->read(name).value).getValue();
  }

  std::unique_ptr<MemoryPlant> plant;
  std::unique_ptr<Manager> manager;
};

}  // namespace pvss
