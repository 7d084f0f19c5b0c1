#include <kel/KelBrowser.h>

#include "KelFixture.h"

namespace kel {
namespace {

using namespace std::chrono_literals;

/// The browser lives on real time; the broker of these tests does too.
struct BrowserTest : ::testing::Test {
  static std::unique_ptr<KelFactory> factory(const std::string& url, const char* name) {
    KelOptions options;
    options.url = url;
    return std::unique_ptr<KelFactory>(Kel::create(name, options));
  }
};

TEST_F(BrowserTest, SeesPublicationsWithTheirOwnersAndRecords) {
  const std::string url = "loopback:browser-1";
  auto a = factory(url, "plant/gw");
  KelData data;
  data.insert(21.5, "temperature");
  a->createPublication("plant/x", nullptr)->send(data, KelTimestamp(77));
  a->createPublication("plant/empty", nullptr);
  ASSERT_TRUE(a->flush(30s));
  auto broker = LoopbackBroker::named("browser-1");
  broker->settle();
  broker->publish("kel/default/data/foreign", "not a record", true);
  broker->settle();

  KelBrowser browser(url);
  ASSERT_TRUE(browser.look(30s)) << browser.error();
  ASSERT_EQ(browser.publishers().size(), 1U);
  const KelPublisherInfo& publisher = browser.publishers()[0];
  EXPECT_EQ(publisher.name, "plant/gw");
  EXPECT_EQ(publisher.incarnation, a->incarnation());
  EXPECT_EQ(publisher.liveness, KelPublisherInfo::Liveness::alive);
  EXPECT_EQ(publisher.counters.at("sends"), 1);

  ASSERT_EQ(browser.publications().size(), 3U);
  const KelPublicationInfo& foreign = browser.publications()[0];
  EXPECT_EQ(foreign.name, "foreign");
  EXPECT_FALSE(foreign.readable);
  EXPECT_EQ(foreign.decodeError, "the payload is truncated or not a protobuf message");
  const KelPublicationInfo& empty = browser.publications()[1];
  EXPECT_EQ(empty.name, "plant/empty");
  EXPECT_FALSE(empty.hasRecord);
  EXPECT_EQ(empty.owner, "plant/gw");
  EXPECT_EQ(empty.liveness, KelPublicationInfo::Liveness::closed);
  const KelPublicationInfo& full = browser.publications()[2];
  EXPECT_EQ(full.name, "plant/x");
  EXPECT_EQ(full.owner, "plant/gw");
  EXPECT_EQ(full.liveness, KelPublicationInfo::Liveness::alive);
  EXPECT_EQ(full.record.extractDouble("temperature"), 21.5);
  EXPECT_EQ(full.record.getTimestamp().timeNanoseconds, 77);
}

TEST_F(BrowserTest, SeesThatAnOwnerIsGone) {
  const std::string url = "loopback:browser-2";
  auto a = factory(url, "gw");
  a->createPublication("x", nullptr)->send(KelData(), KelTimestamp(1));
  ASSERT_TRUE(a->flush(30s));
  a.reset();
  KelBrowser browser(url);
  ASSERT_TRUE(browser.look(30s));
  EXPECT_TRUE(browser.publishers().empty());
  ASSERT_EQ(browser.publications().size(), 1U);
  EXPECT_EQ(browser.publications()[0].liveness, KelPublicationInfo::Liveness::ownerGone);
  EXPECT_EQ(browser.publications()[0].owner, "gw");
}

TEST_F(BrowserTest, LooksAfreshEachTimeAndIsNotSeenItself) {
  KelBrowser browser("loopback:browser-3");
  ASSERT_TRUE(browser.look(30s));
  EXPECT_TRUE(browser.publishers().empty());
  auto a = factory("loopback:browser-3", "gw");
  LoopbackBroker::named("browser-3")->settle();
  ASSERT_TRUE(browser.look(30s));
  EXPECT_EQ(browser.publishers().size(), 1U);
  ASSERT_TRUE(browser.look(30s));
  EXPECT_EQ(browser.publishers().size(), 1U);
}

TEST_F(BrowserTest, SaysWhyItSawNothing) {
  LoopbackBroker::named("browser-4")->setReachable("", false);
  KelBrowser browser("loopback:browser-4");
  EXPECT_FALSE(browser.look(20ms));
  EXPECT_EQ(browser.error(), "the broker did not answer in time");
  EXPECT_THROW(KelBrowser("nowhere"), KelException);
}

}  // namespace
}  // namespace kel
