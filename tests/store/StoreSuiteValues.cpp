// Values of every type and size, there and back, on every store.
#include <algorithm>
#include <cmath>
#include <limits>

#include "StoreSuite.h"

namespace storetest {

namespace {

using Shared = std::shared_ptr<const Variable>;

template <class Var, class Value>
Shared array(VariableType type, const std::vector<Value>& contents) {
  auto result = std::make_shared<DynVar>(type);
  for (const auto& content : contents) {
    result->append(Var(content));
  }
  return result;
}

std::string everyByteButNul() {
  std::string text;
  for (int byte = 1; byte < 256; ++byte) {
    text += static_cast<char>(byte);
  }
  return text;
}

struct Sample {
  DpElementType type;
  std::vector<Shared> values;
};

std::vector<Sample> samples() {
  const double nan = std::numeric_limits<double>::quiet_NaN();
  const double infinity = std::numeric_limits<double>::infinity();
  const double smallest = std::numeric_limits<double>::denorm_min();
  const double largest = std::numeric_limits<double>::max();
  const std::string wide = "\xf0\x9f\x8f\xad plant, \xc3\xa4 and \xe2\x82\xac";
  return {
      {DPELEMENT_BIT, {bit(true), bit(false)}},
      {DPELEMENT_CHAR, {value<CharVar>('A'), value<CharVar>('\0'), value<CharVar>('\xff')}},
      {DPELEMENT_INT,
       {value<IntegerVar>(std::numeric_limits<std::int32_t>::min()),
        value<IntegerVar>(std::numeric_limits<std::int32_t>::max()), value<IntegerVar>(-1)}},
      {DPELEMENT_UINT, {value<UIntegerVar>(4294967295U), value<UIntegerVar>(0U)}},
      {DPELEMENT_32BIT, {value<Bit32Var>(0xffffffffU), value<Bit32Var>(0x80000001U)}},
      {DPELEMENT_FLOAT,
       {number(0.1), number(-0.0), number(nan), number(infinity), number(-infinity), number(smallest),
        number(largest), number(1.0 / 3.0)}},
      {DPELEMENT_TEXT,
       {value<TextVar>(""), value<TextVar>(everyByteButNul().c_str()), value<TextVar>(wide.c_str()),
        value<TextVar>(std::string(100000, 'x').c_str())}},
      {DPELEMENT_DYNBIT, {array<BitVar, int>(BIT_VAR, {}), array<BitVar, int>(BIT_VAR, {1, 0, 1})}},
      {DPELEMENT_DYNCHAR,
       {array<CharVar, char>(CHAR_VAR, {}), array<CharVar, char>(CHAR_VAR, {'A', '\0', '\xff'})}},
      {DPELEMENT_DYNINT,
       {array<IntegerVar, int>(INTEGER_VAR, {}), array<IntegerVar, int>(INTEGER_VAR, {0, -1, 2147483647}),
        array<IntegerVar, int>(INTEGER_VAR, std::vector<int>(100000, -123456789))}},
      {DPELEMENT_DYNUINT,
       {array<UIntegerVar, unsigned>(UINTEGER_VAR, {}),
        array<UIntegerVar, unsigned>(UINTEGER_VAR, {4294967295U})}},
      {DPELEMENT_DYN32BIT,
       {array<Bit32Var, unsigned>(BIT32_VAR, {}), array<Bit32Var, unsigned>(BIT32_VAR, {0xffffffffU, 1U})}},
      {DPELEMENT_DYNFLOAT,
       {array<FloatVar, double>(FLOAT_VAR, {}),
        array<FloatVar, double>(FLOAT_VAR, {nan, -0.0, infinity, 0.1}),
        array<FloatVar, double>(FLOAT_VAR, std::vector<double>(100000, 1.0 / 3.0))}},
      {DPELEMENT_DYNTEXT,
       {array<TextVar, const char*>(TEXT_VAR, {}), array<TextVar, const char*>(TEXT_VAR, {""}),
        array<TextVar, const char*>(TEXT_VAR, {"a,b", "", "5:hello", "\x1a", wide.c_str()}),
        array<TextVar, const char*>(TEXT_VAR, std::vector<const char*>(100000, "0123456789"))}},
  };
}

}  // namespace

TEST_P(StoreSuite, EveryValueOfEveryTypeComesBackAsItWasWritten) {
  const std::vector<Sample> all = samples();
  for (const Sample& sample : all) {
    store->define("T." + std::string(pvss::typeWord(sample.type)), sample.type);
  }
  start();
  for (const Sample& sample : all) {
    const std::string name = "T." + std::string(pvss::typeWord(sample.type));
    Listener listener;
    connect(listener, {name}, false);
    ASSERT_TRUE(listener.newestValue);
    EXPECT_TRUE(pvss::sameValue(*listener.newestValue, *pvss::defaultValue(sample.type))) << name;
    std::size_t count = 0;
    for (const Shared& content : sample.values) {
      SCOPED_TRACE(name + " value " + std::to_string(++count));
      set({{name + ":_original.._value", content}}, static_cast<std::int64_t>(count));
      until([&] { return listener.hotLinks.size() == count; }, "the hot-link comes");
      EXPECT_TRUE(pvss::sameValue(*listener.newestValue, *content)) << "by hot-link";
      EXPECT_TRUE(pvss::sameValue(*store->read(name).value, *content)) << "in the store";
      Reading reading;
      Manager::dpGet(ids({name}), Manager::eventId, &reading, 0);
      until([&] { return reading.answers == 1; }, "the read is answered");
      EXPECT_TRUE(pvss::sameValue(*reading.values.at(0), *content)) << "by reading";
    }
  }
}

TEST_P(StoreSuite, ACallOfThousandsOfElementsIsOneChange) {
  constexpr int count = 4000;
  std::vector<std::string> names;
  for (int index = 0; index < count; ++index) {
    names.push_back("Many.e" + std::to_string(index));
    store->define(names.back(), DPELEMENT_FLOAT);
  }
  start();
  Listener listener;
  connect(listener, {names.front(), names[count / 2], names.back()}, true);
  DpIdValueList list;
  for (const std::string& name : names) {
    list.append(id(name + ":_original.._value"), FloatVar(42));
    list.append(id(name + ":_original.._exp_inv"), BitVar(false));
  }
  EXPECT_TRUE(Manager::dpSetTimed(TimeVar(PVSSTime(1, 0)), list, Manager::eventId, nullptr, 1));
  settle();
  ASSERT_EQ(listener.hotLinks.size(), 2U);
  EXPECT_EQ(listener.hotLinks.back(), (std::vector<std::string>{"System1:Many.e0:_online.._value=42",
                                                                "System1:Many.e2000:_online.._value=42",
                                                                "System1:Many.e3999:_online.._value=42"}));
  const std::vector<std::string> answer = read(names);
  ASSERT_EQ(answer.size(), names.size());
  for (std::size_t index = 0; index < names.size(); ++index) {
    EXPECT_EQ(answer[index], "System1:" + names[index] + ":_online.._value=42");
  }
  EXPECT_EQ(Manager::getCounters().confirmed, 2U * count);
}

TEST_P(StoreSuite, ManyConnectsAreAnsweredEachWithItsOwn) {
  constexpr int count = 2000;
  for (int index = 0; index < count; ++index) {
    store->define("Many.e" + std::to_string(index), DPELEMENT_INT);
  }
  std::vector<std::pair<std::string, ElementWrite>> writes;
  for (int index = 0; index < count; ++index) {
    ElementWrite one;
    one.value = value<IntegerVar>(index);
    writes.emplace_back("Many.e" + std::to_string(index), one);
  }
  store->write(writes, 1);
  start();
  std::vector<Listener> listeners(count);
  for (int index = 0; index < count; ++index) {
    Manager::dpConnect(id("Many.e" + std::to_string(index)), Manager::eventId,
                       &listeners[static_cast<std::size_t>(index)], 0);
  }
  until(
      [&] {
        return std::none_of(listeners.begin(), listeners.end(),
                            [](const Listener& listener) { return listener.answers.empty(); });
      },
      "every connect is answered");
  settle();
  for (int index = 0; index < count; ++index) {
    const Listener& listener = listeners[static_cast<std::size_t>(index)];
    const std::string name = "System1:Many.e" + std::to_string(index) + ":_online.._value=";
    EXPECT_EQ(listener.answers, (std::vector<std::vector<std::string>>{{name + std::to_string(index)}}));
  }
}

// One entry of a log cannot carry them; they come with their own values all the same, each in its place.
TEST_P(StoreSuite, LargeChangesComeWithTheirOwnValuesAndInOrder) {
  store->define("A.list", DPELEMENT_DYNTEXT);
  store->define("A.count", DPELEMENT_INT);
  start();
  Listener listener;
  connect(listener, {"A.count", "A.list"}, false);
  Listener both;
  connect(both, {"A.count", "A.list"}, true);
  both.hotLinks.clear();
  for (int count = 1; count <= 5; ++count) {
    DynVar list(TEXT_VAR);
    const std::string text(200, static_cast<char>('0' + count));
    for (int item = 0; item < 500; ++item) {
      list.append(TextVar(text.c_str()));
    }
    ElementWrite listWrite;
    listWrite.value = pvss::shareCopy(list);
    ElementWrite countWrite;
    countWrite.value = value<IntegerVar>(count);
    // Small ones behind the large ones too.
    store->write({{"A.list", listWrite}, {"A.count", countWrite}}, count);
    store->write({{"A.count", countWrite}}, count + 100);
  }
  settle();
  std::vector<std::string> seen;
  for (const auto& group : both.hotLinks) {
    const std::string& list = group.at(1);
    seen.push_back(group.at(0).substr(group.at(0).find('=') + 1) + " " + list.back() + " " +
                   std::to_string(list.size() > 100000));
  }
  EXPECT_EQ(seen, (std::vector<std::string>{"1 1 1", "1 1 1", "2 2 1", "2 2 1", "3 3 1", "3 3 1", "4 4 1",
                                            "4 4 1", "5 5 1", "5 5 1"}));
}

}  // namespace storetest
