// Connects, reads and writes, the same on every store.
#include <set>

#include "StoreSuite.h"

namespace storetest {

using Texts = std::vector<std::string>;

TEST_P(StoreSuite, NamesOfEverySpellingResolveToTheSameIdentifier) {
  store->define("Boiler1.temperature", DPELEMENT_FLOAT);
  start();
  const DpIdentifier bare = id("Boiler1.temperature");
  EXPECT_EQ(bare, id("System1:Boiler1.temperature"));
  EXPECT_EQ(bare, id("Boiler1.temperature:_online.._value"));
  EXPECT_NE(bare, id("Boiler1.temperature:_original.._value"));
  CharString name;
  EXPECT_TRUE(Manager::getLIName(bare, name, DpIdentification::getDefaultSystem()));
  EXPECT_STREQ(name, "System1:Boiler1.temperature:_online.._value");
  DpElementType type = DPELEMENT_NOELEMENT;
  EXPECT_TRUE(Manager::getElementType(bare, type));
  EXPECT_EQ(type, DPELEMENT_FLOAT);
  DpIdentifier none;
  EXPECT_FALSE(Manager::getId("Boiler1.pressure", none));
  EXPECT_FALSE(Manager::getId("Boiler1.temperature:_online.._exp_inv", none));
  EXPECT_FALSE(Manager::getId("System2:Boiler1.temperature", none));
  EXPECT_TRUE(none.isNull());
}

TEST_P(StoreSuite, AnElementDefinedWhileRunningResolves) {
  start();
  DpIdentifier none;
  EXPECT_FALSE(Manager::getId("New.one", none));
  store->define("New.one", DPELEMENT_DYNTEXT);
  settle();
  DpElementType type = DPELEMENT_NOELEMENT;
  EXPECT_TRUE(Manager::getElementType(id("New.one"), type));
  EXPECT_EQ(type, DPELEMENT_DYNTEXT);
}

TEST_P(StoreSuite, ConnectOfOneIdentifierAnswersOnceWithTheCurrentValue) {
  store->define("A.x", DPELEMENT_FLOAT);
  write("A.x", FloatVar(1.5), 1000);
  start();
  Listener listener;
  connect(listener, {"A.x"}, false);
  settle();
  EXPECT_EQ(listener.answers, (std::vector<Texts>{{"System1:A.x:_online.._value=1.5"}}));
  EXPECT_TRUE(listener.hotLinks.empty());
}

TEST_P(StoreSuite, ConnectOfAListAlsoDeliversOneHotLinkWithTheCurrentValues) {
  store->define("A.x", DPELEMENT_FLOAT);
  write("A.x", FloatVar(1.5), 1234);
  start();
  Listener listener;
  connect(listener, {"A.x", "A.x:_online.._stime", "A.x:_online.._invalid"}, true);
  settle();
  const Texts current{"System1:A.x:_online.._value=1.5", "System1:A.x:_online.._stime=1234",
                      "System1:A.x:_online.._invalid=0"};
  EXPECT_EQ(listener.answers, std::vector<Texts>{current});
  EXPECT_EQ(listener.hotLinks, std::vector<Texts>{current});
  EXPECT_EQ(listener.order, (Texts{"answer", "hotlink"}));
}

TEST_P(StoreSuite, EveryWriteIsOneCallbackEqualValuesIncluded) {
  store->define("A.x", DPELEMENT_FLOAT);
  start();
  Listener listener;
  connect(listener, {"A.x"}, false);
  for (int time = 1; time <= 3; ++time) {
    write("A.x", FloatVar(7), time);
    set({{"A.x:_original.._value", number(7)}}, time);
    settle();
  }
  EXPECT_EQ(listener.hotLinks, std::vector<Texts>(6, {"System1:A.x:_online.._value=7"}));
}

TEST_P(StoreSuite, AHotLinkHasEveryItemInConnectOrderDuplicatesAndEmptyIdentifiersIncluded) {
  store->define("A.x", DPELEMENT_FLOAT);
  store->define("A.y", DPELEMENT_INT);
  start();
  Listener listener;
  connect(listener, {"A.y", "A.x", "", "A.y", "A.x:_original.._userbit1"}, true);
  write("A.y", IntegerVar(5), 1);
  settle();
  EXPECT_EQ(listener.answers.at(0),
            (Texts{"System1:A.y:_online.._value=0", "System1:A.x:_online.._value=0", "=-",
                   "System1:A.y:_online.._value=0", "System1:A.x:_original.._userbit1=0"}));
  EXPECT_EQ(listener.hotLinks.size(), 2U);
  EXPECT_EQ(listener.hotLinks.back(),
            (Texts{"System1:A.y:_online.._value=5", "System1:A.x:_online.._value=0", "=-",
                   "System1:A.y:_online.._value=5", "System1:A.x:_original.._userbit1=0"}));
}

TEST_P(StoreSuite, AnEmptyIdentifierAloneAnswersWithAnItemWithoutValue) {
  start();
  Listener listener;
  connect(listener, {""}, false);
  EXPECT_EQ(listener.answers, (std::vector<Texts>{{"=-"}}));
}

TEST_P(StoreSuite, OnlyWritesThatTouchAConnectedAttributeCallBack) {
  store->define("A.x", DPELEMENT_FLOAT);
  start();
  Listener values;
  Listener times;
  Listener flags;
  Listener bits;
  connect(values, {"A.x:_original.._value"}, false);
  connect(times, {"A.x:_online.._stime"}, false);
  connect(flags, {"A.x:_online.._invalid"}, false);
  connect(bits, {"A.x:_original.._userbit2"}, false);
  set({{"A.x:_original.._exp_inv", bit(true)}}, 5);
  set({{"A.x:_original.._userbit2", bit(true)}}, 6);
  set({{"A.x:_original.._value", number(1)}}, 7);
  settle();
  EXPECT_EQ(values.hotLinks, (std::vector<Texts>{{"System1:A.x:_original.._value=1"}}));
  EXPECT_EQ(times.hotLinks, (std::vector<Texts>{{"System1:A.x:_online.._stime=7"}}));
  EXPECT_EQ(flags.hotLinks,
            (std::vector<Texts>{{"System1:A.x:_online.._invalid=1"}, {"System1:A.x:_online.._invalid=0"}}));
  EXPECT_EQ(bits.hotLinks, (std::vector<Texts>{{"System1:A.x:_original.._userbit2=1"}}));
}

TEST_P(StoreSuite, OneCallIsOneChangeWithOneTimeForAllItsElements) {
  store->define("A.x", DPELEMENT_FLOAT);
  store->define("A.y", DPELEMENT_FLOAT);
  start();
  Listener listener;
  connect(listener, {"A.x", "A.x:_online.._stime", "A.y", "A.y:_online.._stime"}, true);
  set({{"A.x:_original.._value", number(1)}, {"A.y:_original.._value", number(2)}}, 4711);
  settle();
  ASSERT_EQ(listener.hotLinks.size(), 2U);
  EXPECT_EQ(listener.hotLinks[1],
            (Texts{"System1:A.x:_online.._value=1", "System1:A.x:_online.._stime=4711",
                   "System1:A.y:_online.._value=2", "System1:A.y:_online.._stime=4711"}));
}

TEST_P(StoreSuite, TheLastValueOfAnAttributeInACallWins) {
  store->define("A.x", DPELEMENT_FLOAT);
  start();
  Listener listener;
  connect(listener, {"A.x"}, false);
  set({{"A.x:_original.._value", number(1)},
       {"A.x:_original.._exp_inv", bit(false)},
       {"A.x:_original.._value", number(2)},
       {"A.x:_original.._exp_inv", bit(true)}},
      1);
  settle();
  EXPECT_EQ(listener.hotLinks, (std::vector<Texts>{{"System1:A.x:_online.._value=2"}}));
  EXPECT_TRUE(store->read("A.x").invalid);
  const pvss::Counters counters = Manager::getCounters();
  EXPECT_EQ(counters.queued, 4U);
  EXPECT_EQ(counters.coalesced, 2U);
  EXPECT_EQ(counters.confirmed, 2U);
}

TEST_P(StoreSuite, AnElementNeverWrittenHasItsTypesDefaultTimeZeroAndIsInvalid) {
  store->define("A.float", DPELEMENT_FLOAT);
  store->define("A.text", DPELEMENT_TEXT);
  store->define("A.list", DPELEMENT_DYNINT);
  start();
  EXPECT_EQ(
      read({"A.float", "A.float:_online.._stime", "A.float:_online.._invalid", "A.float:_original.._exp_inv",
            "A.float:_original.._userbit1", "A.float:_original.._userbit2", "A.text", "A.list"}),
      (Texts{"System1:A.float:_online.._value=0", "System1:A.float:_online.._stime=0",
             "System1:A.float:_online.._invalid=1", "System1:A.float:_original.._exp_inv=1",
             "System1:A.float:_original.._userbit1=0", "System1:A.float:_original.._userbit2=0",
             "System1:A.text:_online.._value=", "System1:A.list:_online.._value="}));
}

TEST_P(StoreSuite, AValueAloneClearsTheFlagAndAValueWithAFlagSetsIt) {
  store->define("A.x", DPELEMENT_FLOAT);
  start();
  set({{"A.x:_original.._value", number(1)}}, 10);
  settle();
  EXPECT_FALSE(store->read("A.x").invalid);
  set({{"A.x:_original.._exp_inv", bit(true)}}, 20);
  settle();
  EXPECT_TRUE(store->read("A.x").invalid);
  set({{"A.x:_original.._value", number(2)}, {"A.x:_original.._exp_inv", bit(true)}}, 30);
  settle();
  EXPECT_TRUE(store->read("A.x").invalid);
  set({{"A.x:_original.._userbit1", bit(true)}}, 40);
  settle();
  EXPECT_TRUE(store->read("A.x").invalid);
  write("A.x", FloatVar(3), 50);
  EXPECT_FALSE(store->read("A.x").invalid);
}

TEST_P(StoreSuite, TheTimeOfTheFlagIsKeptApartFromTheTimeOfTheValue) {
  store->define("A.x", DPELEMENT_FLOAT);
  start();
  set({{"A.x:_original.._value", number(1)}, {"A.x:_original.._exp_inv", bit(false)}}, 1000);
  set({{"A.x:_original.._exp_inv", bit(true)}}, 2000);
  set({{"A.x:_original.._exp_inv", bit(true)}}, 3000);
  settle();
  ElementView view = store->read("A.x");
  EXPECT_EQ(view.valueTimeMs, 1000);
  EXPECT_EQ(view.invalidTimeMs, 2000);
  EXPECT_EQ(read({"A.x:_online.._stime"}), Texts{"System1:A.x:_online.._stime=1000"});
  set({{"A.x:_original.._value", number(2)}, {"A.x:_original.._exp_inv", bit(true)}}, -1500);
  settle();
  view = store->read("A.x");
  EXPECT_EQ(view.valueTimeMs, -1500);
  EXPECT_EQ(view.invalidTimeMs, 2000);
}

TEST_P(StoreSuite, ADeletedElementAnswersItsDefaults) {
  store->define("A.x", DPELEMENT_FLOAT);
  write("A.x", FloatVar(3), 1000);
  start();
  const DpIdentList list =
      ids({"A.x", "A.x:_online.._invalid", "A.x:_address.._type", "A.x:_address.._reference"});
  store->remove("A.x");
  settle();
  DpIdentifier none;
  EXPECT_FALSE(Manager::getId("A.x", none));
  DpElementType type = DPELEMENT_FLOAT;
  EXPECT_FALSE(Manager::getElementType(list[0], type));
  EXPECT_EQ(type, DPELEMENT_NOELEMENT);
  Reading reading;
  EXPECT_TRUE(Manager::dpGet(list, Manager::eventId, &reading, 0));
  until([&] { return reading.answers == 1; }, "the read is answered");
  EXPECT_EQ(reading.items, (Texts{"System1:A.x:_online.._value=0", "System1:A.x:_online.._invalid=1",
                                  "System1:A.x:_address.._type=0", "System1:A.x:_address.._reference="}));
}

TEST_P(StoreSuite, AReadWithoutItemsIsAnswered) {
  start();
  EXPECT_EQ(read({}), Texts{});
}

TEST_P(StoreSuite, AddressAttributesFollowTheCatalogue) {
  store->define("A.x", DPELEMENT_FLOAT);
  start();
  const Texts names{"A.x:_address.._reference", "A.x:_address.._type", "A.x:_address.._drv_ident"};
  EXPECT_EQ(read(names), (Texts{"System1:A.x:_address.._reference=", "System1:A.x:_address.._type=0",
                                "System1:A.x:_address.._drv_ident="}));
  store->setAddress("A.x", 1, "KEL",
                    "pub\x1a"
                    "tag");
  settle();
  EXPECT_EQ(read(names), (Texts{"System1:A.x:_address.._reference=pub\x1a"
                                "tag",
                                "System1:A.x:_address.._type=1", "System1:A.x:_address.._drv_ident=KEL"}));
}

TEST_P(StoreSuite, AnAttributeSwitchedOffDoesNotResolve) {
  store->define("A.x", DPELEMENT_FLOAT);
  store->switchOff("A.x:_online.._stime");
  start();
  DpIdentifier none;
  EXPECT_FALSE(Manager::getId("A.x:_online.._stime", none));
  EXPECT_TRUE(Manager::getId("A.x:_original.._stime", none));
  store->switchOff("A.x:_original.._userbit2");
  settle();
  EXPECT_FALSE(Manager::getId("A.x:_original.._userbit2", none));
}

TEST_P(StoreSuite, NoChangeIsMissedOrDoubledBetweenAnswerAndFirstHotLink) {
  store->define("A.count", DPELEMENT_INT);
  start();
  constexpr int rounds = 20;
  std::vector<std::unique_ptr<Listener>> listeners;
  std::int32_t count = 0;
  const auto foreign = [&] {
    ++count;
    write("A.count", IntegerVar(count), count);
  };
  for (int round = 0; round < rounds; ++round) {
    foreign();
    listeners.push_back(std::make_unique<Listener>());
    Manager::dpConnect(id("A.count"), Manager::eventId, listeners.back().get(), 0);
    foreign();
    dispatchOnce();
    ++count;
    set({{"A.count:_original.._value", value<IntegerVar>(count)}}, count);
    foreign();
    until([] { return Manager::getCounters().pending == 0; }, "the write is confirmed");
  }
  settle();
  // The first listener has seen the order of all writes but those before its answer, each of them once.
  const auto seenBy = [](const Listener& listener) {
    std::vector<Texts> seen = listener.answers;
    seen.insert(seen.end(), listener.hotLinks.begin(), listener.hotLinks.end());
    return seen;
  };
  const std::vector<Texts> complete = seenBy(*listeners.front());
  EXPECT_EQ(std::set<Texts>(complete.begin(), complete.end()).size(), complete.size());
  EXPECT_GE(complete.size(), static_cast<std::size_t>(4 * rounds - 1));
  // Each other one has seen the end of it without a hole.
  for (const auto& listener : listeners) {
    ASSERT_EQ(listener->answers.size(), 1U);
    const std::vector<Texts> seen = seenBy(*listener);
    ASSERT_LE(seen.size(), complete.size());
    EXPECT_EQ(seen,
              std::vector<Texts>(complete.end() - static_cast<std::ptrdiff_t>(seen.size()), complete.end()));
  }
  EXPECT_GE(seenBy(*listeners.back()).size(), 3U);
}

TEST_P(StoreSuite, WritesMadeWhileTheLinkIsDownArriveOnceAndInOrder) {
  store->define("A.count", DPELEMENT_INT);
  start();
  Listener listener;
  connect(listener, {"A.count"}, false);
  for (int count = 1; count <= 50; ++count) {
    set({{"A.count:_original.._value", value<IntegerVar>(count)}}, count);
  }
  store->breakLink();
  until([] { return Manager::getCounters().storeLosses == 1; }, "the loss is seen");
  for (int count = 51; count <= 100; ++count) {
    set({{"A.count:_original.._value", value<IntegerVar>(count)}}, count);
    dispatchOnce();
  }
  store->mendLink();
  settle();
  ASSERT_EQ(listener.hotLinks.size(), 100U);
  for (int count = 1; count <= 100; ++count) {
    EXPECT_EQ(listener.hotLinks[static_cast<std::size_t>(count - 1)],
              Texts{"System1:A.count:_online.._value=" + std::to_string(count)});
  }
  const pvss::Counters counters = Manager::getCounters();
  EXPECT_EQ(counters.queued, 100U);
  EXPECT_EQ(counters.confirmed, 100U);
}

TEST_P(StoreSuite, ChangesMadeWhileTheLinkIsDownAreCalledBackAfterwards) {
  store->define("A.x", DPELEMENT_FLOAT);
  start();
  Listener listener;
  connect(listener, {"A.x"}, false);
  set({{"A.x:_original.._value", number(1)}}, 1);
  settle();
  store->breakLink();
  until([] { return Manager::getCounters().storeLosses == 1; }, "the loss is seen");
  Reading reading;
  Manager::dpGet(ids({"A.x"}), Manager::eventId, &reading, 0);
  store->mendLink();
  write("A.x", FloatVar(2), 2);
  settle();
  ASSERT_FALSE(listener.hotLinks.empty());
  EXPECT_EQ(listener.hotLinks.back(), Texts{"System1:A.x:_online.._value=2"});
  until([&] { return reading.answers == 1; }, "the read is answered");
}

TEST_P(StoreSuite, WhatCannotBeWrittenIsCountedAndTheRestIsWritten) {
  store->define("A.x", DPELEMENT_FLOAT);
  store->define("A.gone", DPELEMENT_FLOAT);
  start();
  DpIdValueList list;
  list.append(id("A.gone:_original.._value"), FloatVar(1));
  list.append(DpIdentifier(), FloatVar(1));
  list.append(id("A.x:_original.._value"), IntegerVar(1));
  list.append(id("A.x:_online.._value"), FloatVar(1));
  list.append(id("A.x:_original.._value"), nullptr);
  list.append(id("A.x:_original.._userbit1"), BitVar(true));
  store->remove("A.gone");
  settle();
  EXPECT_FALSE(Manager::dpSetTimed(TimeVar(), list, Manager::eventId, nullptr, 1));
  settle();
  const pvss::Counters counters = Manager::getCounters();
  EXPECT_EQ(counters.queued, 6U);
  EXPECT_EQ(counters.rejected, 5U);
  EXPECT_EQ(counters.confirmed, 1U);
  EXPECT_TRUE(store->read("A.x").userBit1);
  EXPECT_EQ(store->read("A.x").valueTimeMs, 0);
}

TEST_P(StoreSuite, AnObjectThatIsDestroyedIsNotCalledBackAnyMore) {
  store->define("A.x", DPELEMENT_FLOAT);
  start();
  auto gone = std::make_unique<Listener>();
  Listener stays;
  connect(*gone, {"A.x"}, false);
  connect(stays, {"A.x"}, false);
  gone.reset();
  {
    Reading never;
    Manager::dpGet(ids({"A.x"}), Manager::eventId, &never, 0);
  }
  write("A.x", FloatVar(2), 2);
  settle();
  EXPECT_EQ(stays.hotLinks.size(), 1U);
}

TEST_P(StoreSuite, ASecondManagerOfTheProcessTakesOverWhereTheFirstEnded) {
  store->define("A.x", DPELEMENT_FLOAT);
  start();
  set({{"A.x:_original.._value", number(1)}}, 1);
  settle();
  manager.reset();
  EXPECT_EQ(Manager::manPtr, nullptr);
  start();
  EXPECT_EQ(read({"A.x"}), Texts{"System1:A.x:_online.._value=1"});
  set({{"A.x:_original.._value", number(2)}}, 2);
  settle();
  EXPECT_EQ(read({"A.x"}), Texts{"System1:A.x:_online.._value=2"});
}

}  // namespace storetest
