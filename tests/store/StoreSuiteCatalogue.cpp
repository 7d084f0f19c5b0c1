// What a connect sees of changes of the catalogue, the same on every store.
#include <gmock/gmock.h>

#include "StoreSuite.h"

namespace storetest {

using Texts = std::vector<std::string>;
using ::testing::Contains;
using ::testing::Not;

namespace {

const Texts triple{"A.x", "A.x:_online.._stime", "A.x:_online.._invalid"};

Texts tripleIs(const std::string& value, const std::string& time, const std::string& invalid) {
  return {"System1:A.x:_online.._value=" + value, "System1:A.x:_online.._stime=" + time,
          "System1:A.x:_online.._invalid=" + invalid};
}

}  // namespace

TEST_P(StoreSuite, AConnectedElementThatIsDeletedIsCalledBackWithoutValueAndInvalid) {
  store->define("A.x", DPELEMENT_FLOAT);
  write("A.x", FloatVar(1.5), 1000);
  start();
  Listener group;
  Listener flag;
  connect(group, triple, true);
  connect(flag, {"A.x:_original.._exp_inv"}, false);
  store->remove("A.x");
  settle();
  EXPECT_EQ(group.hotLinks, (std::vector<Texts>{tripleIs("1.5", "1000", "0"), tripleIs("-", "0", "1")}));
  EXPECT_EQ(flag.hotLinks, (std::vector<Texts>{{"System1:A.x:_original.._exp_inv=1"}}));
}

TEST_P(StoreSuite, AnElementThatIsDefinedAgainWithItsTypeIsFollowedAgain) {
  store->define("A.x", DPELEMENT_FLOAT);
  write("A.x", FloatVar(1.5), 1000);
  start();
  Listener group;
  connect(group, triple, true);
  store->remove("A.x");
  settle();
  group.hotLinks.clear();
  store->define("A.x", DPELEMENT_FLOAT);
  settle();
  // The question that follows the catalogue change is answered in its own time.
  until([&] { return !group.hotLinks.empty(); }, "the element is called back");
  EXPECT_EQ(group.hotLinks, (std::vector<Texts>{tripleIs("0", "0", "1")}));
  write("A.x", FloatVar(2.5), 2000);
  settle();
  EXPECT_EQ(group.hotLinks.back(), tripleIs("2.5", "2000", "0"));
}

TEST_P(StoreSuite, AConnectNeverBringsAValueOfAnotherType) {
  store->define("A.x", DPELEMENT_TEXT);
  write("A.x", TextVar("on"), 1000);
  start();
  Listener group;
  connect(group, triple, true);
  store->define("A.x", DPELEMENT_INT);
  write("A.x", IntegerVar(7), 2000);
  write("A.x", IntegerVar(8), 3000);
  settle();
  EXPECT_EQ(group.hotLinks, (std::vector<Texts>{tripleIs("on", "1000", "0"), tripleIs("-", "0", "1"),
                                                tripleIs("-", "2000", "1"), tripleIs("-", "3000", "1")}));
  // Whoever asks now is answered as things are now.
  EXPECT_EQ(read(triple), tripleIs("8", "3000", "0"));
  Listener late;
  connect(late, triple, true);
  EXPECT_EQ(late.answers, std::vector<Texts>{tripleIs("8", "3000", "0")});
  // Back again: what is true then.
  store->define("A.x", DPELEMENT_TEXT);
  write("A.x", TextVar("off"), 4000);
  settle();
  until([&] { return group.hotLinks.back() == tripleIs("off", "4000", "0"); }, "the text is followed again");
  EXPECT_EQ(late.hotLinks.back(), tripleIs("-", "4000", "1"));
}

TEST_P(StoreSuite, AListThatChangesItsTypeHasNoValue) {
  store->define("A.x", DPELEMENT_DYNTEXT);
  start();
  Listener list;
  connect(list, {"A.x"}, false);
  store->define("A.x", DPELEMENT_FLOAT);
  write("A.x", FloatVar(1), 1000);
  settle();
  EXPECT_EQ(list.hotLinks, (std::vector<Texts>(2, {"System1:A.x:_online.._value=-"})));
}

TEST_P(StoreSuite, ChangesOfTheCatalogueDuringAnOutageAreCalledBackAfterwards) {
  store->define("A.x", DPELEMENT_FLOAT);
  store->define("A.y", DPELEMENT_FLOAT);
  store->define("A.z", DPELEMENT_FLOAT);
  write("A.x", FloatVar(1), 1000);
  write("A.y", FloatVar(2), 1000);
  write("A.z", FloatVar(3), 1000);
  start();
  Listener gone;
  Listener again;
  Listener other;
  connect(gone, {"A.x", "A.x:_online.._invalid"}, true);
  connect(again, {"A.y", "A.y:_online.._invalid"}, true);
  connect(other, {"A.z", "A.z:_online.._invalid"}, true);
  store->breakLink();
  until([] { return Manager::getCounters().storeLosses == 1; }, "the loss is seen");
  store->remove("A.x");
  store->remove("A.y");
  store->define("A.y", DPELEMENT_FLOAT);
  store->define("A.z", DPELEMENT_INT);
  write("A.z", IntegerVar(4), 2000);
  store->mendLink();
  settle();
  const auto last = [](const Listener& listener) { return listener.hotLinks.back(); };
  until([&] { return last(again).front() == "System1:A.y:_online.._value=0"; }, "the new element is called");
  EXPECT_EQ(last(gone), (Texts{"System1:A.x:_online.._value=-", "System1:A.x:_online.._invalid=1"}));
  EXPECT_EQ(last(again), (Texts{"System1:A.y:_online.._value=0", "System1:A.y:_online.._invalid=1"}));
  EXPECT_THAT(other.hotLinks, Not(Contains(Contains("System1:A.z:_online.._value=4"))));
  EXPECT_EQ(last(other), (Texts{"System1:A.z:_online.._value=-", "System1:A.z:_online.._invalid=1"}));
}

// ---- Addresses

namespace {

constexpr const char* live =
    "live\x1a"
    "t";
constexpr const char* never =
    "never\x1a"
    "t";

}  // namespace

TEST_P(StoreSuite, AnAddressThatIsNewOrAnotherMakesItsElementInvalidInTheSameStep) {
  store->define("A.x", DPELEMENT_FLOAT);
  write("A.x", FloatVar(1.5), 1000);
  start();
  Listener group;
  connect(group, triple, true);
  store->setAddress("A.x", 1, "KEL", live);
  EXPECT_TRUE(store->read("A.x").invalid);
  EXPECT_GT(store->read("A.x").invalidTimeMs, 1'000'000) << "the store's own clock";
  settle();
  EXPECT_EQ(group.hotLinks.back(), tripleIs("1.5", "1000", "1"));
  write("A.x", FloatVar(2.5), 2000);
  store->setAddress("A.x", 1, "KEL", live);
  EXPECT_FALSE(store->read("A.x").invalid) << "nothing has changed";
  store->setAddress("A.x", 1, "KEL", never);
  const std::int64_t marked = store->read("A.x").invalidTimeMs;
  store->setAddress("A.x", 1, "KEL", live);
  EXPECT_EQ(store->read("A.x").invalidTimeMs, marked) << "invalid already";
  write("A.x", FloatVar(3.5), 3000);
  store->setAddress("A.x", 0, "", "");
  settle();
  EXPECT_FALSE(store->read("A.x").invalid) << "an address that is taken away says nothing of the value";
  EXPECT_EQ(group.hotLinks, (std::vector<Texts>{tripleIs("1.5", "1000", "0"), tripleIs("1.5", "1000", "1"),
                                                tripleIs("2.5", "2000", "0"), tripleIs("2.5", "2000", "1"),
                                                tripleIs("3.5", "3000", "0")}));
}

TEST_P(StoreSuite, AWriteThatWasMadeForTheOldAddressIsLeftOut) {
  store->define("A.x", DPELEMENT_FLOAT);
  store->define("A.y", DPELEMENT_FLOAT);
  store->setAddress("A.x", 1, "KEL", live);
  start();
  DpIdValueList old;
  old.append(id("A.x:_original.._value"), FloatVar(1));
  old.append(id("A.x:_original.._userbit1"), BitVar(true));
  old.append(id("A.y:_original.._value"), FloatVar(2));
  store->setAddress("A.x", 1, "KEL", never);
  settle();
  // The flag as it is resolved anew does not make the rest of the element new.
  old.append(id("A.x:_original.._exp_inv"), BitVar(false));
  Manager::dpSetTimed(TimeVar(PVSSTime::fromMilliseconds(1000)), old, Manager::eventId, nullptr, 1);
  settle();
  EXPECT_TRUE(store->read("A.x").invalid);
  EXPECT_FALSE(store->read("A.x").userBit1);
  EXPECT_FALSE(store->read("A.y").invalid);
  const pvss::Counters counters = Manager::getCounters();
  EXPECT_EQ(counters.dropped, 3U);
  EXPECT_EQ(counters.confirmed, 1U);
  EXPECT_EQ(counters.queued, 4U);
  set({{"A.x:_original.._value", number(5)}}, 2000);
  settle();
  EXPECT_FALSE(store->read("A.x").invalid) << "what is resolved now is for the new address";
}

TEST_P(StoreSuite, AWriteOnItsWayWhenTheAddressChangesIsLeftOut) {
  store->define("A.x", DPELEMENT_FLOAT);
  store->define("A.y", DPELEMENT_FLOAT);
  store->setAddress("A.x", 1, "KEL", live);
  start();
  set({{"A.x:_original.._value", number(1)}}, 1000);
  settle();
  store->setAddress("A.x", 1, "KEL", never);
  // The manager has not been told: it neither dispatches nor reads.
  set({{"A.x:_original.._value", number(2)}, {"A.y:_original.._value", number(3)}}, 2000);
  set({{"A.x:_original.._value", number(4)}}, 3000);
  settle();
  EXPECT_TRUE(store->read("A.x").invalid);
  EXPECT_EQ(store->read("A.x").valueTimeMs, 1000);
  EXPECT_FALSE(store->read("A.y").invalid);
  const pvss::Counters counters = Manager::getCounters();
  EXPECT_EQ(counters.queued, counters.confirmed + counters.rejected + counters.dropped);
  set({{"A.x:_original.._value", number(5)}}, 4000);
  settle();
  EXPECT_FALSE(store->read("A.x").invalid);
}

TEST_P(StoreSuite, AWriteThatWaitsForTheStoreWhileTheAddressChangesIsLeftOut) {
  store->define("A.x", DPELEMENT_FLOAT);
  store->define("A.y", DPELEMENT_FLOAT);
  store->setAddress("A.x", 1, "KEL", live);
  start();
  store->breakLink();
  until([] { return Manager::getCounters().storeLosses == 1; }, "the loss is seen");
  set({{"A.x:_original.._value", number(1)}, {"A.y:_original.._value", number(2)}}, 1000);
  set({{"A.x:_original.._value", number(3)}}, 2000);
  store->setAddress("A.x", 1, "KEL", never);
  store->mendLink();
  settle();
  EXPECT_TRUE(store->read("A.x").invalid);
  EXPECT_EQ(store->read("A.x").valueTimeMs, 0);
  EXPECT_FALSE(store->read("A.y").invalid);
  const pvss::Counters counters = Manager::getCounters();
  EXPECT_EQ(counters.dropped, 2U);
  EXPECT_EQ(counters.confirmed, 1U);
}

TEST_P(StoreSuite, AWriteThatWasHandedOverBeforeTheLinkBrokeIsLeftOutToo) {
  store->define("A.x", DPELEMENT_FLOAT);
  store->setAddress("A.x", 1, "KEL", live);
  start();
  set({{"A.x:_original.._value", number(1)}}, 1000);  // handed over, not confirmed: nobody dispatches
  store->breakLink();
  until([] { return Manager::getCounters().storeLosses == 1; }, "the loss is seen");
  store->setAddress("A.x", 1, "KEL", never);
  store->mendLink();
  settle();
  EXPECT_TRUE(store->read("A.x").invalid);
}

TEST_P(StoreSuite, AValueOfTheOldTypeIsNotWrittenIntoTheNewOne) {
  store->define("A.x", DPELEMENT_FLOAT);
  start();
  store->define("A.x", DPELEMENT_TEXT);
  set({{"A.x:_original.._value", number(7)}}, 1000);
  settle();
  EXPECT_EQ(read(triple), tripleIs("", "0", "1"));
}

}  // namespace storetest
