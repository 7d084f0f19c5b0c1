// Properties: a list of MQTT 5 properties that is made, handed over or freed.
#pragma once

#include <mosquitto.h>

#include <cstdint>
#include <utility>

namespace kel::mqtt {

class Properties {
 public:
  Properties() = default;
  ~Properties() { mosquitto_property_free_all(&list_); }
  Properties(const Properties&) = delete;
  Properties& operator=(const Properties&) = delete;

  int addInt32(int identifier, std::uint32_t value) {
    return mosquitto_property_add_int32(&list_, identifier, value);
  }
  [[nodiscard]] const mosquitto_property* get() const { return list_; }
  mosquitto_property* release() { return std::exchange(list_, nullptr); }

 private:
  mosquitto_property* list_ = nullptr;
};

}  // namespace kel::mqtt
