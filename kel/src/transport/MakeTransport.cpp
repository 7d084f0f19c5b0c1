#include "transport/MakeTransport.h"

#include <cstdlib>
#include <random>

#include "transport/loopback/LoopbackTransport.h"
#ifdef KEL_HAS_MQTT
#include "transport/mqtt/MqttTransport.h"
#endif

namespace kel {

std::unique_ptr<KelTransport> makeTransport(const KelUrl& url, std::string& error) {
  if (url.scheme == KelUrl::Scheme::loopback) return makeLoopbackTransport(url);
#ifdef KEL_HAS_MQTT
  return makeMqttTransport(url, error);
#else
  error = "this build has no MQTT transport";
  return nullptr;
#endif
}

std::optional<KelUrl> chosenUrl(const std::string& given, std::string& error) {
  if (!given.empty()) return KelUrl::parse(given, error);
  const char* fromEnvironment = std::getenv("KEL_URL");
  const bool isSet = fromEnvironment != nullptr && *fromEnvironment != '\0';
  return KelUrl::parse(isSet ? std::string_view(fromEnvironment) : defaultKelUrl, error);
}

std::string randomIncarnation() {
  constexpr std::string_view digits = "0123456789abcdef";
  std::random_device random;
  std::string result;
  for (int word = 0; word < 3; ++word) {
    unsigned bits = random();
    for (int i = 0; i < 8; ++i, bits >>= 4U) result.push_back(digits[bits & 15U]);
  }
  return result;
}

}  // namespace kel
