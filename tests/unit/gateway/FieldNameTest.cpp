// The field names that reach the Kel library, and what a thread of it sees in between.
#include <pvss/DynVar.h>
#include <pvss/IntegerVar.h>

#include <memory>
#include <mutex>
#include <optional>

#include "Gateway.h"
#include "KELClientManager.h"
#include "KelDataSpy.h"
#include "PVSS_KEL_TypeMap.h"
#include "WatchedThread.h"

namespace gateway_test {
namespace {

using test_support::WatchedThread;

class FieldName : public Gateway {
 protected:
  /// Runs the action and gives the field names that reached the library, "none" for no name.
  static Lines namesDuring(const std::function<void()>& action) {
    Lines names;
    const KelDataSpy spy([&names](const char* operation, const char* tag) {
      names.push_back(std::string(operation) + " " +
                      (tag == nullptr ? "none" : "'" + std::string(tag) + "'"));
    });
    action();
    return names;
  }
  static KelData record(const char* tag) {
    KelData data;
    data.insert(7, tag);
    kel::testing::setQuality(data, 1);
    return data;
  }
};

TEST_F(FieldName, emptyTagIsNoNameForTheConverters) {
  KelData unnamed = record(nullptr);
  KelData named = record("t");
  const CkelToPVSSTypeConverter& scalar = TMap::findKelToDpeConverterFor(4, DPELEMENT_INT)->getConverter();
  EXPECT_EQ(namesDuring([&] {
              const std::unique_ptr<Variable> first(scalar.convert("", unnamed));
              const std::unique_ptr<Variable> second(scalar.convert("t", named));
            }),
            (Lines{"extractInt none", "extractInt 't'"}));

  const int value = 7;
  unnamed.insert(&value, 1, nullptr);
  named.insert(&value, 1, "t");
  const CkelToPVSSTypeConverter& array = TMap::findKelToDpeConverterFor(40, DPELEMENT_DYNINT)->getConverter();
  EXPECT_EQ(namesDuring([&] {
              const std::unique_ptr<Variable> first(array.convert("", unnamed));
              const std::unique_ptr<Variable> second(array.convert("t", named));
            }),
            (Lines{"extractIntArray none", "extractIntArray 't'"}));

  KelData written;
  IntegerVar integer(1);
  const CpvssToKelTypeConverter& published = *TMap::findDpeToKelConverterFor(DPELEMENT_INT);
  EXPECT_EQ(namesDuring([&] {
              published.convert(written, &integer, CharString(""));
              published.convert(written, &integer, CharString("t"));
            }),
            (Lines{"insert none", "insert 't'"}));
}

TEST_F(FieldName, emptyTagIsNoNameForTheLookUpOfTheConverter) {
  addClient("A.v", DPELEMENT_INT, "P", "");
  start();
  printedBy([] {
    CdpeWrapper a("A.v");
    ASSERT_TRUE(a.revalidateDPE());
    CkelSubscription subscription("P");
    subscription.createMapping("", "P", a);
    KelData unnamed = record(nullptr);
    EXPECT_EQ(namesDuring([&] { subscription.handleMessage(nullptr, unnamed); }),
              (Lines{"getValueType none", "extractInt none"}));
    subscription.destroyMapping(a);
    subscription.createMapping("t", "P", a);
    KelData named = record("t");
    EXPECT_EQ(namesDuring([&] { subscription.handleMessage(nullptr, named); }),
              (Lines{"getValueType 't'", "extractInt 't'"}));
    EXPECT_EQ(namesDuring([&] { subscription.handleMessage(nullptr, named); }), Lines{"extractInt 't'"});
  });
  written();
}

TEST_F(FieldName, resendIsMarkedWhenTheMappingStands) {
  // A record that comes while the second element is being mapped clears an earlier mark, and the element
  // would wait for its first value: the mark comes last.
  addClient("A.v", DPELEMENT_INT, "P", "a");
  addClient("B.v", DPELEMENT_INT, "P", "b");
  start();
  printedBy([this] {
    CkelClientManager clients;
    const DynVar first = textList({"A.v"});
    clients.updateConfig(&first);
    KelSubscriptionListener& listener = *kel.subscription("P")->listener;
    CkelSubscription& subscription = static_cast<CkelSubscription&>(listener);
    CdpeWrapper b("B.v");
    ASSERT_TRUE(b.revalidateDPE());

    // A Kel thread stops in the middle of a record, with the subscription's lock.
    std::mutex hold;
    hold.lock();
    std::optional<KelDataSpy> spy;
    spy.emplace([&hold](const char* operation, const char* /*tag*/) {
      if (std::string(operation) == "extractInt") {
        const std::scoped_lock wait(hold);
      }
    });
    WatchedThread kelThread([&listener] {
      KelData data = record("a");
      listener.handleMessage(nullptr, data);
    });
    EXPECT_TRUE(kelThread.comesToWaitForALock());
    WatchedThread mapper([&clients, &b] { clients.subscribeDPE(b); });
    EXPECT_TRUE(mapper.comesToWaitForALock());  // for the lock, before the mapping is there
    EXPECT_FALSE(subscription.mustGetLastPubValue());
    hold.unlock();
    kelThread.join();
    mapper.join();
    EXPECT_TRUE(subscription.mustGetLastPubValue());
    clients.unsubscribeDPE(b);
  });
  written();
}

}  // namespace
}  // namespace gateway_test
