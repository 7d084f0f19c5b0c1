// Json: a small tree for what --json prints, so that commands need no heavy header.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "Datum.h"

namespace kelgw {

class Json {
 public:
  using Array = std::vector<Json>;
  using Object = std::vector<std::pair<std::string, Json>>;  ///< in the order of insertion

  Json();
  // Out of line: inlined everywhere, they grow the code and set off false alarms of the compiler.
  Json(const Json& other);
  Json(Json&& other) noexcept;
  Json& operator=(const Json& other);
  Json& operator=(Json&& other) noexcept;
  ~Json();
  Json(bool value) : data(value) {}
  Json(int value) : data(static_cast<std::int64_t>(value)) {}
  Json(std::int64_t value) : data(value) {}
  Json(std::uint64_t value) : data(value) {}
  Json(double value) : data(value) {}
  Json(float value);
  Json(const char* value) : data(std::string(value)) {}
  Json(std::string value) : data(std::move(value)) {}
  Json(Array value) : data(std::move(value)) {}
  Json(Object value) : data(std::move(value)) {}
  /// Numbers as numbers, NaN and infinities as texts, texts that are no UTF-8 as {"hex": "..."}.
  Json(const Datum& value);

  [[nodiscard]] bool isNull() const { return std::holds_alternative<std::monostate>(data); }
  /// One line without a line end.
  [[nodiscard]] std::string line() const;
  /// Indented, for a document that people may look at too; without a line end.
  [[nodiscard]] std::string document() const;

  std::variant<std::monostate, bool, std::int64_t, std::uint64_t, double, std::string, Array, Object> data;
};

}  // namespace kelgw
