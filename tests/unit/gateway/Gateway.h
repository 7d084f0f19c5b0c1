// Gateway: what the tests of the gateway's units stand on: a plant in memory, a manager, a Kel library.
#pragma once

#include <gtest/gtest.h>
#include <pvss/DpIdValueList.h>
#include <pvss/DynVar.h>
#include <pvss/testing/MemoryPlant.h>

#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "FakeKel.h"
#include "KelApiManager.h"

namespace gateway_test {

using Lines = std::vector<std::string>;

/// What the action prints on standard output.
std::string printedBy(const std::function<void()>& action);

/// A value as text: "int 5", "bit 1", "dyn_text [a, b]", "none".
std::string describe(const Variable* value);

/// The pairs of a list as "element:_config..attribute = value", in their order.
Lines describe(const DpIdValueList& list);
Lines describe(const pvss::testing::RecordedWrite& write);

/// A list of texts.
DynVar textList(const std::vector<std::string>& texts);

/// A reference: publication and tag with the delimiter between them.
std::string reference(const std::string& publication, const std::string& tag);

/// Fields of a compound text, joined by the delimiter.
std::string compound(const std::vector<std::string>& fields);

class ManagerUnderTest : public KelApiManager {
 public:
  using KelApiManager::writeQueuedUpdates;
  /// How many updates wait. For who knows that nobody else is at it.
  static std::size_t waitingUpdates() RUNTIME_NO_LOCK_ANALYSIS { return dpeUpdateQueue.size(); }
  static void forgetUpdates() {
    const SmutexGuard guard(dpeUpdateQueueLock);
    for (const CpvssUpdate* const update : std::exchange(dpeUpdateQueue, {})) {
      delete update;
    }
  }
};

/// The plant and a manager that is up; the Kel library is a fake unless a test puts another in place.
class Gateway : public ::testing::Test {
 protected:
  Gateway();
  ~Gateway() override;

  /// Makes the manager, if there is none, and connects it.
  void start();
  /// Lets the platform work until nothing is left to do.
  static void settle();
  /// Drains the update queue and gives what was written, one text a pair, one list a dpSetTimed call.
  std::vector<Lines> written();

  /// An element that is fed from the publication's tag.
  void addClient(const std::string& name, DpElementType type, const std::string& publication,
                 const std::string& tag);

  pvss::testing::MemoryPlant plant;
  FakeKelFactory kel;
  std::optional<ManagerUnderTest> manager;
};

}  // namespace gateway_test
