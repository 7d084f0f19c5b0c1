// Texts, times, values and lists.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <sstream>

#include "basics/Values.h"
#include "pvss/CharString.h"
#include "pvss/DpIdValueList.h"
#include "pvss/DpIdentList.h"
#include "pvss/DynVar.h"
#include "pvss/PVSSTime.h"
#include "pvss/TimeVar.h"

TEST(CharString, ComparesAndOrdersByBytes) {
  EXPECT_TRUE(CharString("a") == CharString("a"));
  EXPECT_TRUE(CharString("a") != CharString("A"));
  EXPECT_TRUE(CharString("a") < CharString("b"));
  EXPECT_TRUE(CharString("a") < CharString("aa"));
  EXPECT_TRUE(CharString("\x7f") < CharString("\x80"));
  EXPECT_TRUE(CharString("KEL") == "KEL");
  EXPECT_TRUE("kel" != CharString("KEL"));
}

TEST(CharString, IcmpTakesUpperAndLowerCaseAsTheSame) {
  EXPECT_EQ(CharString("CLIENTDPLIST").icmp("clientDPList"), 0);
  EXPECT_LT(CharString("a").icmp("B"), 0);
  EXPECT_GT(CharString("c").icmp("B"), 0);
  EXPECT_EQ(CharString("").icmp(nullptr), 0);
}

TEST(CharString, SetCharStrTakesThatManyBytesOrAll) {
  CharString text;
  text.setCharStr("3.0  linked", static_cast<unsigned int>(-1));
  EXPECT_STREQ(text, "3.0  linked");
  text.setCharStr("abcdef", 3);
  EXPECT_STREQ(text, "abc");
  text.setCharStr("ab", 3);
  EXPECT_STREQ(text, "ab");
  text.setCharStr(nullptr, 3);
  EXPECT_TRUE(text.isEmpty());
}

TEST(CharString, FindsAndCuts) {
  const CharString text("pub\x1atag\x1a");
  EXPECT_EQ(text.find("\x1a"), 3U);
  EXPECT_EQ(text.find("\x1a", 4), 7U);
  EXPECT_EQ(text.find("none"), CharString::npos);
  EXPECT_EQ(text.substring(0, 3), CharString("pub"));
  EXPECT_EQ(text.substring(4), CharString("tag\x1a"));
  EXPECT_EQ(text.substring(99), CharString());
  EXPECT_TRUE(text.contains(CharString("tag")));
}

TEST(CharString, ANullPointerIsTheEmptyText) {
  const CharString text(static_cast<const char*>(nullptr));
  EXPECT_TRUE(text.isEmpty());
  EXPECT_EQ(text + static_cast<const char*>(nullptr), CharString());
}

TEST(CharString, JoinsTexts) {
  EXPECT_STREQ(CharString("N") + ":_" + CharString("original") + ".._value", "N:_original.._value");
  CharString text("a");
  text += 'b';
  text += "c";
  text += CharString("d");
  EXPECT_STREQ(text, "abcd");
}

TEST(CharString, ReadsAConfigurationValue) {
  const auto read = [](const char* from) {
    std::istringstream in(from);
    CharString text("before");
    in >> text;
    return text.str();
  };
  EXPECT_EQ(read("  \"a b # c\"  # comment"), "a b # c");
  EXPECT_EQ(read("word# comment"), "word");
  EXPECT_EQ(read("\tone two"), "one");
  EXPECT_EQ(read("\"\""), "");
  EXPECT_EQ(read(""), "");
  EXPECT_EQ(read("# only a comment"), "");
}

TEST(CharString, ReadsSeveralValuesOneAfterTheOther) {
  std::istringstream in("\"a b\" c \"d\"");
  CharString first;
  CharString second;
  CharString third;
  in >> first >> second >> third;
  EXPECT_TRUE(in);
  EXPECT_STREQ(first, "a b");
  EXPECT_STREQ(second, "c");
  EXPECT_STREQ(third, "d");
  in >> first;
  EXPECT_FALSE(in);
}

TEST(PVSSTime, CarriesMillisecondsIntoTheSeconds) {
  const auto carried = [](std::int64_t seconds, std::int64_t milli) {
    PVSSTime time(seconds, 0);
    time.setMilli(milli);
    return std::pair<std::int64_t, int>(time.getSeconds(), time.getMilli());
  };
  EXPECT_EQ(carried(10, 999), std::make_pair(std::int64_t{10}, 999));
  EXPECT_EQ(carried(10, 1000), std::make_pair(std::int64_t{11}, 0));
  EXPECT_EQ(carried(10, -1), std::make_pair(std::int64_t{9}, 999));
  EXPECT_EQ(carried(0, -1000), std::make_pair(std::int64_t{-1}, 0));
  EXPECT_EQ(carried(-1, -500), std::make_pair(std::int64_t{-2}, 500));
  EXPECT_EQ(PVSSTime(-2, 500).toMilliseconds(), -1500);
  EXPECT_EQ(PVSSTime::fromMilliseconds(-1500), PVSSTime(-2, 500));
}

TEST(PVSSTime, KeepsEveryMillisecondThatNanosecondsCanName) {
  for (const std::int64_t ms : {std::int64_t{9223372036854}, std::int64_t{-9223372036854}, std::int64_t{0}}) {
    EXPECT_EQ(PVSSTime(ms / 1000, ms % 1000).toMilliseconds(), ms);
  }
}

TEST(TimeVar, IsTheCurrentTimeUnlessToldOtherwise) {
  const PVSSTime before;
  const TimeVar now;
  const PVSSTime after;
  EXPECT_LE(before.toMilliseconds(), now.getValue().toMilliseconds());
  EXPECT_LE(now.getValue().toMilliseconds(), after.toMilliseconds());
  const TimeVar then(PVSSTime(7, 8));
  EXPECT_EQ(then.getSeconds(), 7);
  EXPECT_EQ(then.getMilli(), 8);
}

TEST(Variable, TypesHaveTheCodesOfThePlatform) {
  EXPECT_EQ(BitVar().isA(), 0x40000U);
  EXPECT_EQ(IntegerVar().isA(), 0x50000U);
  EXPECT_EQ(UIntegerVar().isA(), 0x60000U);
  EXPECT_EQ(FloatVar().isA(), 0x70000U);
  EXPECT_EQ(TextVar().isA(), 0x80000U);
  EXPECT_EQ(Bit32Var().isA(), 0x90000U);
  EXPECT_EQ(CharVar().isA(), 0xa0000U);
  EXPECT_EQ(DynVar(BIT_VAR).isA(), 0xe0000U);
  EXPECT_EQ(DynVar(INTEGER_VAR).isA(), 0xf0000U);
  EXPECT_EQ(DynVar(UINTEGER_VAR).isA(), 0x100000U);
  EXPECT_EQ(DynVar(FLOAT_VAR).isA(), 0x110000U);
  EXPECT_EQ(DynVar(TEXT_VAR).isA(), 0x120000U);
  EXPECT_EQ(DynVar(BIT32_VAR).isA(), 0x130000U);
  EXPECT_EQ(DynVar(CHAR_VAR).isA(), 0x140000U);
}

TEST(Variable, TruthIsTheBitTheNumberOrTheContent) {
  EXPECT_TRUE(BitVar(true).isTrue());
  EXPECT_FALSE(BitVar(false).isTrue());
  EXPECT_TRUE(IntegerVar(-1).isTrue());
  EXPECT_FALSE(FloatVar(0).isTrue());
  EXPECT_TRUE(FloatVar(std::numeric_limits<double>::quiet_NaN()).isTrue());
  EXPECT_FALSE(TextVar("").isTrue());
  EXPECT_TRUE(TextVar("0").isTrue());
  EXPECT_FALSE(DynVar(BIT_VAR).isTrue());
}

TEST(Variable, CloneIsAnEqualObjectOfItsOwn) {
  DynVar array(TEXT_VAR);
  array.append(TextVar("a"));
  const std::unique_ptr<Variable> copy(array.clone());
  array.append(TextVar("b"));
  ASSERT_EQ(copy->isA(), DYNTEXT_VAR);
  EXPECT_EQ(static_cast<DynVar&>(*copy).getNumberOfItems(), 1U);
}

TEST(DynVar, AppendsCopiesOfItsOwnTypeOnly) {
  DynVar array(INTEGER_VAR);
  IntegerVar element(1);
  EXPECT_TRUE(array.append(element));
  element.setValue(2);
  EXPECT_TRUE(array.append(element));
  EXPECT_FALSE(array.append(FloatVar(3)));
  ASSERT_EQ(array.getNumberOfItems(), 2U);
  EXPECT_EQ(static_cast<IntegerVar&>(array[0]).getValue(), 1);
  EXPECT_EQ(static_cast<IntegerVar&>(array[1]).getValue(), 2);
  EXPECT_EQ(array.getAt(2), nullptr);
}

TEST(DynVar, WalksFromTheFirstToTheLast) {
  DynVar array(CHAR_VAR);
  EXPECT_EQ(array.getFirstVar(), nullptr);
  EXPECT_EQ(array.getNextVar(), nullptr);
  for (const char c : {'a', 'b', 'c'}) {
    array.append(CharVar(c));
  }
  std::string seen;
  for (const Variable* element = array.getFirstVar(); element != nullptr; element = array.getNextVar()) {
    EXPECT_EQ(element->isA(), CHAR_VAR);
    seen += static_cast<const CharVar*>(element)->getValue();
  }
  EXPECT_EQ(seen, "abc");
  EXPECT_EQ(array.getNextVar(), nullptr);
  EXPECT_EQ(static_cast<CharVar*>(array.getFirstVar())->getValue(), 'a');
}

TEST(DynVar, AnElementTypeWithoutArrayTakesNothing) {
  DynVar array(TIME_VAR);
  EXPECT_EQ(array.isA(), NOTYPE_VAR);
  EXPECT_FALSE(array.append(TimeVar()));
  EXPECT_EQ(array.getNumberOfItems(), 0U);
}

TEST(DpIdValueList, OwnsOrCopiesItsValues) {
  DpIdValueList list;
  const DpIdentifier first(1, 2);
  const DpIdentifier second(1, 3);
  list.append(first, new IntegerVar(5));
  IntegerVar kept(6);
  list.append(second, kept);
  kept.setValue(7);
  list.append(first, nullptr);
  ASSERT_EQ(list.getNumberOfItems(), 3U);
  const DpVCItem* item = list.getFirstItem();
  ASSERT_NE(item, nullptr);
  EXPECT_EQ(item->getDpIdentifier(), first);
  EXPECT_EQ(static_cast<IntegerVar*>(item->getValuePtr())->getValue(), 5);
  item = list.getNextItem();
  EXPECT_EQ(static_cast<IntegerVar*>(item->getValuePtr())->getValue(), 6);
  EXPECT_EQ(list.getNextItem()->getValuePtr(), nullptr);
  EXPECT_EQ(list.getNextItem(), nullptr);
  const DpIdValueList copy(list);
  EXPECT_NE(copy[0].getValuePtr(), list[0].getValuePtr());
}

TEST(DpIdentifier, OrdersByElementThenAttribute) {
  EXPECT_TRUE(DpIdentifier().isNull());
  EXPECT_FALSE(DpIdentifier(1, 1).isNull());
  EXPECT_TRUE(DpIdentifier(1, 2) < DpIdentifier(2, 1));
  EXPECT_TRUE(DpIdentifier(1, 1) < DpIdentifier(1, 2));
  EXPECT_FALSE(DpIdentifier(1, 2) < DpIdentifier(1, 2));
}

TEST(Values, SamenessHoldsForNanAndTellsTheZerosApart) {
  const double nan = std::numeric_limits<double>::quiet_NaN();
  EXPECT_TRUE(pvss::sameValue(FloatVar(nan), FloatVar(-nan)));
  EXPECT_FALSE(pvss::sameValue(FloatVar(0.0), FloatVar(-0.0)));
  EXPECT_FALSE(pvss::sameValue(IntegerVar(1), UIntegerVar(1)));
  EXPECT_FALSE(pvss::sameValue(DynVar(INTEGER_VAR), DynVar(UINTEGER_VAR)));
  DynVar left(FLOAT_VAR);
  DynVar right(FLOAT_VAR);
  left.append(FloatVar(nan));
  EXPECT_FALSE(pvss::sameValue(left, right));
  right.append(FloatVar(nan));
  EXPECT_TRUE(pvss::sameValue(left, right));
}

TEST(Values, EveryElementTypeHasADefaultOfItsVariableType) {
  for (int type = 0; type <= 26; ++type) {
    const auto element = static_cast<DpElementType>(type);
    const VariableType variable = pvss::variableTypeOf(element);
    const pvss::SharedValue& value = pvss::defaultValue(element);
    ASSERT_EQ(static_cast<bool>(value), variable != NOTYPE_VAR) << type;
    if (value) {
      EXPECT_EQ(value->isA(), variable);
      EXPECT_FALSE(value->isTrue());
    }
    if (const std::string_view word = pvss::typeWord(element); !word.empty()) {
      EXPECT_EQ(pvss::typeOfWord(word), element);
    }
  }
}
