// The suites on a real MQTT broker.
#include <memory>
#include <string>

#include "Mosquitto.h"
#include "TransportSuite.h"

namespace kel::testing {
namespace {

class MqttWorld final : public TransportWorld {
 public:
  // What is retained survives an orderly restart; it need not be on disk all the time.
  MqttWorld()
      : broker_({.persistence = true, .more = {"autosave_on_changes false", "autosave_interval 1800"}}) {
    broker_.start();
  }
  std::string url(const std::string& options) override { return broker_.url(options); }
  void cutLinks() override {
    broker_.stop();
    broker_.start();
  }

 private:
  Mosquitto broker_;
};

std::unique_ptr<TransportWorld> makeMqttWorld() {
  return std::make_unique<MqttWorld>();
}

INSTANTIATE_TEST_SUITE_P(Mqtt, TransportSuite, ::testing::Values(&makeMqttWorld),
                         [](const auto&) { return std::string("mosquitto"); });
INSTANTIATE_TEST_SUITE_P(Mqtt, SessionSuite, ::testing::Values(&makeMqttWorld),
                         [](const auto&) { return std::string("mosquitto"); });

}  // namespace
}  // namespace kel::testing
