// StoreSuite: what every store must do, seen through the manager's operations.
//
// A store takes part by a StoreFixture of its own and one line:
//   INSTANTIATE_TEST_SUITE_P(Memory, StoreSuite, testing::Values(StoreKind{"memory", &makeMemoryFixture}));
// in an executable that is built with StoreSuite.cpp and StoreSuiteValues.cpp.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "basics/Values.h"
#include "pvss/BitVar.h"
#include "pvss/DpMsgAnswer.h"
#include "pvss/DynVar.h"
#include "pvss/FloatVar.h"
#include "pvss/HotLinkWaitForAnswer.h"
#include "pvss/IntegerVar.h"
#include "pvss/Manager.h"
#include "pvss/TextVar.h"
#include "pvss/TimeVar.h"
#include "pvss/testing/MemoryPlant.h"
#include "store/ValueCodec.h"

namespace storetest {

using pvss::testing::ElementView;
using pvss::testing::ElementWrite;

/// A fresh, empty store, and somebody else's hands on it. While the fixture lives, a manager that connects
/// uses its store. Everything else than breakLink() is in the store when the call returns. Names are
/// "Dp.element".
class StoreFixture {
 public:
  virtual ~StoreFixture() = default;
  virtual void define(const std::string& name, DpElementType type) = 0;
  virtual void remove(const std::string& name) = 0;
  virtual void setAddress(const std::string& name, int type, const std::string& driver,
                          const std::string& reference) = 0;
  /// "Dp.element:_config..attribute"
  virtual void switchOff(const std::string& attribute) = 0;
  /// One change.
  virtual void write(const std::vector<std::pair<std::string, ElementWrite>>& elements,
                     std::int64_t timeMs) = 0;
  /// `writes` may stay 0.
  virtual ElementView read(const std::string& name) = 0;
  /// The manager's connection breaks and cannot be made until mendLink(); nothing that the store had is lost.
  virtual void breakLink() = 0;
  virtual void mendLink() = 0;
};

struct StoreKind {
  const char* name;
  std::unique_ptr<StoreFixture> (*make)();
  friend std::ostream& operator<<(std::ostream& out, const StoreKind& kind) { return out << kind.name; }
};

/// One item as a callback brought it: "name=value", a missing value as "name=-".
std::string textOf(const DpVCItem& item);

/// Writes down what it is called with.
class Listener : public HotLinkWaitForAnswer {
 public:
  using HotLinkWaitForAnswer::hotLinkCallBack;
  void hotLinkCallBack(DpMsgAnswer& answer) override;
  void hotLinkCallBack(DpHLGroup& group) override;

  std::vector<std::vector<std::string>> answers;
  std::vector<std::vector<std::string>> hotLinks;
  std::vector<std::string> order;               // "answer" and "hotlink" as they came
  std::shared_ptr<const Variable> newestValue;  // of the first item of the newest callback
};

/// The answer to a read.
class Reading : public WaitForAnswer {
 public:
  void callBack(DpMsgAnswer& answer) override;
  int answers = 0;
  std::vector<std::string> items;
  std::vector<std::shared_ptr<const Variable>> values;
};

class StoreSuite : public ::testing::TestWithParam<StoreKind> {
 protected:
  StoreSuite();
  ~StoreSuite() override;

  /// Makes the manager and dispatches until it runs.
  void start();
  /// Dispatches until the condition holds; a failure of the test when it does not within 20 s.
  void until(const std::function<bool()>& condition, const char* what);
  /// Dispatches until every change made so far has reached the manager.
  void settle();
  static void dispatchOnce();

  static DpIdentifier id(const std::string& name);
  static DpIdentList ids(const std::vector<std::string>& names);
  /// Connects and waits for the answer; a list when `list`.
  void connect(Listener& listener, const std::vector<std::string>& names, bool list);
  std::vector<std::string> read(const std::vector<std::string>& names);
  /// By the manager, one dpSetTimed call.
  static void set(const std::vector<std::pair<std::string, std::shared_ptr<const Variable>>>& values,
                  std::int64_t timeMs);
  /// By somebody else.
  void write(const std::string& name, const Variable& value, std::int64_t timeMs);

  std::unique_ptr<StoreFixture> store;
  std::unique_ptr<Manager> manager;

 private:
  Listener mark_;
  std::int32_t marks_ = 0;
};

template <class Var, class Value>
std::shared_ptr<const Variable> value(Value content) {
  return std::make_shared<const Var>(content);
}
inline std::shared_ptr<const Variable> number(double content) {
  return value<FloatVar>(content);
}
inline std::shared_ptr<const Variable> bit(bool content) {
  return value<BitVar>(content);
}

}  // namespace storetest
