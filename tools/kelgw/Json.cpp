#include "Json.h"

#include <fmt/format.h>

#include <cmath>
#include <cstdlib>
#include <nlohmann/json.hpp>

namespace kelgw {
namespace {

bool isUtf8(std::string_view text) {
  while (!text.empty()) {
    const std::size_t length = utf8SequenceLength(text);
    if (length == 0) {
      return false;
    }
    text.remove_prefix(length);
  }
  return true;
}

nlohmann::ordered_json textOrHex(const std::string& text) {
  if (isUtf8(text)) {
    return text;
  }
  std::string hex;
  for (const char byte : text) {
    hex += fmt::format("{:02x}", static_cast<unsigned char>(byte));
  }
  return {{"hex", hex}};
}

nlohmann::ordered_json numberOrText(double number) {
  if (std::isnan(number)) {
    return "nan";
  }
  if (std::isinf(number)) {
    return number > 0 ? "inf" : "-inf";
  }
  return number;
}

nlohmann::ordered_json build(const Json& json) {
  struct Builder {
    nlohmann::ordered_json operator()(std::monostate) const { return nullptr; }
    nlohmann::ordered_json operator()(bool value) const { return value; }
    nlohmann::ordered_json operator()(std::int64_t value) const { return value; }
    nlohmann::ordered_json operator()(std::uint64_t value) const { return value; }
    nlohmann::ordered_json operator()(double value) const { return numberOrText(value); }
    nlohmann::ordered_json operator()(const std::string& value) const { return textOrHex(value); }
    nlohmann::ordered_json operator()(const Json::Array& value) const {
      auto array = nlohmann::ordered_json::array();
      for (const Json& element : value) {
        array.push_back(build(element));
      }
      return array;
    }
    nlohmann::ordered_json operator()(const Json::Object& value) const {
      auto object = nlohmann::ordered_json::object();
      for (const auto& [key, element] : value) {
        object[isUtf8(key) ? key : escapeText(key)] = build(element);
      }
      return object;
    }
  };
  return std::visit(Builder{}, json.data);
}

/// JSON lets DEL and the control characters of Unicode stand in a string as they are; a terminal would obey
/// them.
std::string withoutControls(const std::string& json) {
  std::string shown;
  shown.reserve(json.size());
  for (std::size_t at = 0; at < json.size(); ++at) {
    const auto byte = static_cast<unsigned char>(json[at]);
    const auto next = at + 1 < json.size() ? static_cast<unsigned char>(json[at + 1]) : 0U;
    if (byte == 0x7F) {
      shown += "\\u007f";
    } else if (byte == 0xC2 && next >= 0x80 && next < 0xA0) {
      shown += fmt::format("\\u{:04x}", next);
      ++at;
    } else {
      shown += json[at];
    }
  }
  return shown;
}

}  // namespace

Json::Json() = default;
Json::Json(const Json& other) = default;
Json::Json(Json&& other) noexcept = default;
Json& Json::operator=(const Json& other) = default;
Json& Json::operator=(Json&& other) noexcept = default;
Json::~Json() = default;

// Through the shortest decimal, so that 0.1 stays 0.1 and does not become 0.10000000149011612.
Json::Json(float value)
    : data(std::isfinite(value) ? std::strtod(fmt::format("{}", value).c_str(), nullptr) : double{value}) {}

Json::Json(const Datum& value) {
  const auto convert = [](const Item& item) {
    return std::visit([](const auto& content) { return Json(content); }, item);
  };
  if (!value.type.list) {
    *this = value.items.empty() ? Json() : convert(value.items.front());
    return;
  }
  Array array;
  array.reserve(value.items.size());
  for (const Item& item : value.items) {
    array.push_back(convert(item));
  }
  data = std::move(array);
}

std::string Json::line() const {
  return withoutControls(build(*this).dump());
}

std::string Json::document() const {
  return withoutControls(build(*this).dump(2));
}

}  // namespace kelgw
