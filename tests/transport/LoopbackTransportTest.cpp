// The suites on the in-process broker, and what only that broker can do.

#include <atomic>

#include "TransportSuite.h"
#include "transport/loopback/LoopbackBroker.h"

namespace kel::testing {
namespace {

class LoopbackWorld final : public TransportWorld {
 public:
  std::string url(const std::string& options) override { return "loopback:" + name_ + "?" + options; }
  void cutLinks() override { LoopbackBroker::named(name_)->cut(""); }

 private:
  static int next() {
    static std::atomic<int> number{0};
    return ++number;
  }
  const std::string name_ = "suite-" + std::to_string(next());
};

std::unique_ptr<TransportWorld> makeLoopbackWorld() {
  return std::make_unique<LoopbackWorld>();
}

INSTANTIATE_TEST_SUITE_P(Loopback, TransportSuite, ::testing::Values(&makeLoopbackWorld),
                         [](const auto&) { return std::string("broker"); });
INSTANTIATE_TEST_SUITE_P(Loopback, SessionSuite, ::testing::Values(&makeLoopbackWorld),
                         [](const auto&) { return std::string("broker"); });

TEST(LoopbackBroker, KeepsWhatIsRetainedWhenEverybodyHasLeft) {
  const auto broker = LoopbackBroker::named("keeps");
  broker->publish("t", "1", true);
  EXPECT_EQ(broker->retained("t"), "1");
  EXPECT_EQ(LoopbackBroker::named("keeps"), broker);
  EXPECT_NE(LoopbackBroker::named("other"), broker);
}

TEST(LoopbackBroker, KnowsFilters) {
  EXPECT_TRUE(filterMatches("#", "a/b"));
  EXPECT_TRUE(filterMatches("a/#", "a"));
  EXPECT_TRUE(filterMatches("a/+", "a/"));
  EXPECT_TRUE(filterMatches("+/b", "/b"));
  EXPECT_FALSE(filterMatches("a/+", "a"));
  EXPECT_FALSE(filterMatches("a", "a/b"));
  EXPECT_FALSE(filterMatches("a/b", "a"));
  EXPECT_FALSE(filterMatches("+", "a/b"));
}

}  // namespace
}  // namespace kel::testing
