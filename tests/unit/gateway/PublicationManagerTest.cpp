// The publication list: its texts become groups.
#include <pvss/IntegerVar.h>

#include <cerrno>
#include <random>

#include "DelayList.h"
#include "Gateway.h"
#include "kelPublicationManager.h"

#if defined(__SANITIZE_ADDRESS__) || defined(KELGW_LEAK_SANITIZER)
#include <sanitizer/lsan_interface.h>
#endif

namespace gateway_test {
namespace {

class PublicationManager : public Gateway {
 protected:
  void SetUp() override {
    plant.addElement("A.v", DPELEMENT_INT);
    plant.addElement("B.v", DPELEMENT_INT);
    start();
  }
  std::string apply(const std::vector<std::string>& entries) {
    return printedBy([&] {
      const DynVar list = textList(entries);
      publications.updateConfig(&list);
    });
  }
  static Lines names() {
    Lines result;
    for (const auto& [name, group] : CkelPublicationManager::publications) {
      result.push_back(name->str());
    }
    return result;
  }

  CkelPublicationManager publications;
};

constexpr const char* builtWithA =
    "Created DPEWrapper for DPE A.v\n"
    "Created publisher mapping between DPE A.v tag tag1\n"
    "Created Publication group P\n";

TEST_F(PublicationManager, fourFieldsAreAGroupWithOneMapping) {
  plant.clearRecords();
  EXPECT_EQ(apply({compound({"P", "100", "A.v", "tag1"})}), builtWithA);
  EXPECT_EQ(names(), Lines{"P"});
  EXPECT_EQ(plant.connects().size(), 1U);
  // Buffered: the first change waits.
  settle();
  EXPECT_EQ(kel.sentCount(), 0U);
}

TEST_F(PublicationManager, threeFieldsAreALoneElementWithTheEmptyTag) {
  EXPECT_EQ(apply({compound({"P", "0", "A.v"})}),
            "Created DPEWrapper for DPE A.v\n"
            "Created publisher mapping between DPE A.v tag \n"
            "Created Publication group P\n");
  settle();
  kel.takeSent();
  plant.write("A.v", IntegerVar(7), 1000);
  settle();
  const auto sent = kel.takeSent();
  ASSERT_EQ(sent.size(), 1U);
  EXPECT_EQ(sent[0].data.extractInt(nullptr), 7);
}

TEST_F(PublicationManager, furtherPairsAreFurtherMappings) {
  EXPECT_EQ(apply({compound({"P", "0", "A.v", "a", "B.v", "b"})}),
            "Created DPEWrapper for DPE A.v\n"
            "Created publisher mapping between DPE A.v tag a\n"
            "Created DPEWrapper for DPE B.v\n"
            "Created publisher mapping between DPE B.v tag b\n"
            "Created Publication group P\n");
}

TEST_F(PublicationManager, badlyFormattedEntriesAreReportedWholeAndSkipped) {
  const std::vector<std::vector<std::string>> entries{
      {"P", "0", "A.v", "a", "B.v"},  // an odd number above three
      {"P", "0"},
      {"P"},
      {"P", "0", "", "a"},
      {"", "0", "A.v", "a"},
      {"P", "", "A.v", "a"},
      {"P", "0", "A.v", "", "B.v", "b"},
      {"P", "soon", "A.v", "a"},
      {"P", "x100", "A.v"},
      {"P", "-", "A.v"},
      {"P", "99999999999", "A.v"},
      {"P", "99999999999999999999999", "A.v"},
  };
  for (const auto& fields : entries) {
    const std::string entry = compound(fields);
    EXPECT_EQ(apply({entry}),
              "ERROR: kelPublicationManager 66 Badly formated publication configuration \"" + entry + "\"\n");
  }
  EXPECT_EQ(apply({""}), "ERROR: kelPublicationManager 66 Badly formated publication configuration \"\"\n");
  EXPECT_EQ(names(), Lines{});
}

TEST_F(PublicationManager, entriesAfterABadOneAreTaken) {
  EXPECT_EQ(apply({"bad", compound({"P", "0", "A.v", "tag1"})}),
            "ERROR: kelPublicationManager 66 Badly formated publication configuration \"bad\"\n" +
                std::string(builtWithA));
}

TEST_F(PublicationManager, delimiterAtTheEndAddsNoField) {
  EXPECT_EQ(apply({compound({"P", "0", "A.v", "tag1", ""})}), builtWithA);
}

TEST_F(PublicationManager, bufferTimeToleratesBlanksBeforeAndTextBehind) {
  EXPECT_EQ(apply({compound({"P", "  100ms", "A.v", "tag1"})}), builtWithA);
}

TEST_F(PublicationManager, bufferTimeOfATextIsItsNumber) {
  const DrivenClock clock;
  const std::vector<std::pair<std::string, long>> times{
      {"  100ms", 100},
      {"\t+7", 7},
      {"250 300", 250},
      {"2147483647", 2'147'483'647},
      // A negative time is kept, and waits for its unsigned count: 49.7 days.
      {"-1", 4'294'967'295},
      {"-2147483648", 2'147'483'648},
  };
  for (const auto& [text, ms] : times) {
    apply({compound({text, text, "A.v", "tag1"})});
    gdelayedPubThread.stopInOrder();  // the test takes the turns
    settle();
    EXPECT_EQ(gdelayedPubThread.beginTurn().waitMs, ms) << text;
    gdelayedPubThread.stopInOrder();
  }
  EXPECT_EQ(names().size(), times.size());
  EXPECT_EQ(kel.sentCount(), 0U);
}

TEST_F(PublicationManager, errorOfAnEarlierCallIsNotTakenForOneOfTheBufferTime) {
  const DynVar list = textList({compound({"P", "100", "A.v", "tag1"})});
  EXPECT_EQ(printedBy([&] {
              errno = ERANGE;
              publications.updateConfig(&list);
            }),
            builtWithA);
}

TEST_F(PublicationManager, bufferTimeBeyondTheNumbersIsBadlyFormatted) {
  for (const char* const text : {"2147483648", "-2147483649", "9223372036854775808"}) {
    const std::string entry = compound({"P", text, "A.v", "tag1"});
    EXPECT_EQ(apply({entry}),
              "ERROR: kelPublicationManager 66 Badly formated publication configuration \"" + entry + "\"\n");
  }
}

TEST_F(PublicationManager, onlyAGroupThatCannotBeBuiltIsCaught) {
#if defined(__SANITIZE_ADDRESS__) || defined(KELGW_LEAK_SANITIZER)
  const __lsan::ScopedDisabler mappingsOfTheUnfinishedGroupStayAllocated;
#endif
  kel.failing = true;
  const DynVar list = textList({compound({"P", "0", "A.v", "tag1"}), compound({"Q", "0", "B.v", "b"})});
  EXPECT_EQ(printedBy([&] { EXPECT_THROW(publications.updateConfig(&list), KelException); }),
            "Created DPEWrapper for DPE A.v\n"
            "Created publisher mapping between DPE A.v tag tag1\n");
  EXPECT_EQ(names(), Lines{});
}

TEST_F(PublicationManager, emptyListDoesNothing) {
  EXPECT_EQ(apply({}), "");
  EXPECT_EQ(names(), Lines{});
}

TEST_F(PublicationManager, existingPublicationStaysAsItIsAndANewOneIsBuilt) {
  apply({compound({"P", "0", "A.v", "tag1"})});
  EXPECT_EQ(apply({compound({"P", "500", "B.v", "other"}), compound({"Q", "0", "B.v", "b"})}),
            "Created DPEWrapper for DPE B.v\n"
            "Created publisher mapping between DPE B.v tag b\n"
            "Created Publication group Q\n");
  EXPECT_EQ(names(), (Lines{"P", "Q"}));
}

TEST_F(PublicationManager, existingPublicationIsLeftWithoutAWordAlsoWithABadBufferTime) {
  apply({compound({"P", "0", "A.v", "tag1"})});
  EXPECT_EQ(apply({compound({"P", "soon", "A.v", "tag1"})}), "");
}

TEST_F(PublicationManager, vanishedPublicationGoesOn) {
  apply({compound({"P", "0", "A.v", "tag1"})});
  settle();
  kel.takeSent();
  EXPECT_EQ(apply({}), "");
  plant.write("A.v", IntegerVar(1), 1000);
  settle();
  EXPECT_EQ(kel.takeSent().size(), 1U);
}

TEST_F(PublicationManager, makingAPublicationSaysWhetherItWasMade) {
  CdpeMappingTuple tuple{"A.v", "a"};
  CvectorOfdpeMappingTuples tuples;
  tuples.push_back(&tuple);
  printedBy([&] { EXPECT_TRUE(publications.makePublication("P", 0, tuples)); });
  EXPECT_EQ(names(), Lines{"P"});
  tuple.DPEname = "No.such";
  printedBy([&] { EXPECT_FALSE(publications.makePublication("Q", 0, tuples)); });
  EXPECT_EQ(names(), Lines{"P"});
}

TEST_F(PublicationManager, entryThatFailedIsTriedAgainWithEveryList) {
  const std::string entry = compound({"P", "0", "C.v", "tag1"});
  const std::string failure =
      "Created DPEWrapper for DPE C.v\n"
      "ERROR: kelPubGroup 237 Invalid DPE C.v can not be published through P. This pub is now invalid\n"
      "Destroyed DPEWrapper for DPE C.v\n"
      "Destroying pub group mappings before publication was created\n"
      "ERROR: kelPublicationManager 38 Failed to create Publication group P\n";
  EXPECT_EQ(apply({entry}), failure);
  EXPECT_EQ(apply({entry}), failure);
  EXPECT_EQ(names(), Lines{});
  plant.addElement("C.v", DPELEMENT_INT);
  settle();
  EXPECT_EQ(apply({entry}),
            "Created DPEWrapper for DPE C.v\n"
            "Created publisher mapping between DPE C.v tag tag1\n"
            "Created Publication group P\n");
  EXPECT_EQ(names(), Lines{"P"});
}

// --- splitting

std::vector<std::string> split(const std::string& text) {
  std::vector<std::string> fields;
  CkelPublicationManager::extractStringsFromCompoundString(CharString(text.c_str()), fields);
  return fields;
}

using Fields = std::vector<std::string>;

TEST(Splitting, examples) {
  EXPECT_EQ(split(""), Fields{});
  EXPECT_EQ(split("a"), Fields{"a"});
  EXPECT_EQ(split("\x1A"), Fields{""});
  EXPECT_EQ(split("a\x1A"), Fields{"a"});
  EXPECT_EQ(split("\x1A"
                  "a"),
            (Fields{"", "a"}));
  EXPECT_EQ(split("a\x1A\x1A"
                  "b"),
            (Fields{"a", "", "b"}));
  EXPECT_EQ(split("a\x1A\x1A"), (Fields{"a", ""}));
  EXPECT_EQ(split(" a \x1A b "), (Fields{" a ", " b "}));
}

TEST(Splitting, appendsToWhatIsThere) {
  std::vector<std::string> fields{"before"};
  CkelPublicationManager::extractStringsFromCompoundString(
      "a\x1A"
      "b",
      fields);
  EXPECT_EQ(fields, (Fields{"before", "a", "b"}));
}

// The rule stated from the other side: every field is the longest run without delimiter, each delimiter ends
// exactly one field, and what follows the last delimiter is a field only if it is not empty.
bool isSplitOf(const Fields& fields, const std::string& text) {
  std::size_t delimiters = 0;
  for (const char c : text) {
    delimiters += c == '\x1A' ? 1 : 0;
  }
  const bool openEnd = !text.empty() && text.back() != '\x1A';
  if (fields.size() != delimiters + (openEnd ? 1 : 0)) {
    return false;
  }
  std::string joined;
  for (std::size_t i = 0; i < fields.size(); ++i) {
    if (fields[i].find('\x1A') != std::string::npos) {
      return false;
    }
    joined += fields[i];
    if (i < delimiters) {
      joined += '\x1A';
    }
  }
  return joined == text;
}

TEST(Splitting, everyTextIsSplitByTheRule) {
  std::mt19937 random(20'011);
  for (int round = 0; round < 20'000; ++round) {
    std::string text;
    const std::size_t length = random() % 24;
    for (std::size_t i = 0; i < length; ++i) {
      text += random() % 3 == 0 ? '\x1A' : static_cast<char>(1 + random() % 255);
    }
    EXPECT_TRUE(isSplitOf(split(text), text)) << round;
  }
}

}  // namespace
}  // namespace gateway_test
