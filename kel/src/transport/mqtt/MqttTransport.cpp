#include "transport/mqtt/MqttTransport.h"

#include <utility>

#include "transport/mqtt/MqttOptions.h"
#include "transport/mqtt/MqttWorker.h"

namespace kel {

std::unique_ptr<KelTransport> makeMqttTransport(const KelUrl& url, std::string& error) {
  auto options = mqtt::mqttOptions(url, error);
  if (!options) return nullptr;
  return std::make_unique<mqtt::MqttWorker>(std::move(*options));
}

}  // namespace kel
