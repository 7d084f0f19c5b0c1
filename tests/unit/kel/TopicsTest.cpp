#include "wire/Topics.h"

#include <gtest/gtest.h>

#include <random>

namespace kel {
namespace {

std::string coded(std::string_view name) {
  std::string error;
  return encodeTopicName(name, error).value_or("refused: " + error);
}

TEST(Topics, KeepsPlainNamesAsTopicLevels) {
  EXPECT_EQ(coded("plant/boiler1"), "plant/boiler1");
  EXPECT_EQ(coded("A-z_0.9"), "A-z_0.9");
}

TEST(Topics, WritesOtherBytesWithCapitalHexDigits) {
  EXPECT_EQ(coded("a b"), "a%20b");
  EXPECT_EQ(coded("100%"), "100%25");
  EXPECT_EQ(coded("a+b#c$d"), "a%2Bb%23c%24d");
  EXPECT_EQ(coded("\xC3\xBC"), "%C3%BC");
  EXPECT_EQ(coded(std::string_view("a\0b", 3)), "a%00b");
}

TEST(Topics, RefusesNamesThatNoTopicCanCarry) {
  EXPECT_EQ(coded(""), "refused: the name is empty");
  EXPECT_EQ(coded(std::string(20'001, '#')), "refused: the name is longer than a topic may be (60000 bytes)");
  EXPECT_EQ(coded(std::string(180, '/')), "refused: the name has more than 180 levels");
  EXPECT_EQ(coded(std::string(179, '/')), std::string(179, '/'));
}

TEST(Topics, ComesBackWithTheSameName) {
  std::mt19937 random(7);
  for (int i = 0; i < 2000; ++i) {
    std::string name;
    for (auto n = random() % 40 + 1; n > 0; --n) name.push_back(static_cast<char>(random() & 0xFFU));
    EXPECT_EQ(decodeTopicName(coded(name)), name);
  }
}

TEST(Topics, RefusesCodesThatAreNotWhole) {
  for (const char* bad : {"%", "%2", "a%2", "%G0", "%0G", "a b", "a#"}) {
    EXPECT_FALSE(decodeTopicName(bad).has_value()) << bad;
  }
}

TEST(Topics, NamesTheTopicsOfAGroup) {
  const TopicSpace topics("g1");
  EXPECT_EQ(topics.data("plant/boiler1"), "kel/g1/data/plant/boiler1");
  EXPECT_EQ(topics.claim("p"), "kel/g1/claim/p");
  EXPECT_EQ(topics.publisher("gw/1", "a1"), "kel/g1/publisher/gw/1/a1");
  EXPECT_EQ(topics.probe(), "kel/g1/probe");
}

TEST(Topics, KnowsItsOwnTopicsAgain) {
  const TopicSpace topics("g1");
  const auto data = topics.parse("kel/g1/data/a%20b/c");
  ASSERT_TRUE(data.has_value());
  EXPECT_EQ(data->kind, TopicKind::data);
  EXPECT_EQ(data->name, "a b/c");
  const auto presence = topics.parse("kel/g1/publisher/gw/1/a1");
  ASSERT_TRUE(presence.has_value());
  EXPECT_EQ(presence->kind, TopicKind::publisher);
  EXPECT_EQ(presence->name, "gw/1");
  EXPECT_EQ(presence->incarnation, "a1");
  const auto ledger = topics.parse(topics.ledger("gw/1", "a1"));
  ASSERT_TRUE(ledger.has_value());
  EXPECT_EQ(ledger->kind, TopicKind::ledger);
  EXPECT_EQ(ledger->name, "gw/1");
  EXPECT_EQ(ledger->incarnation, "a1");
  EXPECT_EQ(topics.parse("kel/g1/probe")->kind, TopicKind::probe);
  EXPECT_EQ(topics.parse("kel/g1/claim/x")->kind, TopicKind::claim);
}

TEST(Topics, PassesOverWhatIsNotItsOwn) {
  const TopicSpace topics("g1");
  for (const char* other :
       {"kel/g2/data/x", "kel/g1", "kel/g1/", "kel/g1/data", "kel/g1/data/", "kel/g1/other/x",
        "kel/g1/publisher/x", "kel/g1/publisher/x/", "kel/g1/data/%", "spBv1.0/g/DDATA/e"}) {
    EXPECT_FALSE(topics.parse(other).has_value()) << other;
  }
}

TEST(Topics, SplitsAPublisherAtItsIncarnation) {
  const auto id = PublisherId::parse("plant/gw/0a1b");
  ASSERT_TRUE(id.has_value());
  EXPECT_EQ(id->name, "plant/gw");
  EXPECT_EQ(id->incarnation, "0a1b");
  EXPECT_EQ(id->text(), "plant/gw/0a1b");
  EXPECT_FALSE(PublisherId::parse("gw").has_value());
  EXPECT_FALSE(PublisherId::parse("gw/").has_value());
}

}  // namespace
}  // namespace kel
