// Metric: one metric of a payload as it lies on the wire, and what its datatype makes of it. Pure.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "data/Record.h"
#include "wire/ProtoWire.h"

namespace kel {

enum class ValueKind : std::uint8_t { none, integer, longInteger, single, real, boolean, text, bytes };

struct Metric {
  std::string_view name;
  bool hasDatatype = false;
  std::uint64_t datatype = 0;
  bool isNull = false;
  ValueKind kind = ValueKind::none;
  std::uint64_t number = 0;
  float single = 0;
  double real = 0;
  std::string_view bytes;
};

/// Reads to the reader's end; whether that went well the reader knows.
void readMetric(proto::Reader& reader, Metric& metric);

/// How a datatype travels, and what it becomes.
struct DatatypeRule {
  KelType type;
  ValueKind kind;
};

/// typeNone for a datatype that Kel does not have.
[[nodiscard]] DatatypeRule ruleOf(std::uint64_t datatype);

/// Elements of a packed array, or why the bytes are not one.
const char* countElements(KelType type, std::string_view bytes, std::size_t& count);

}  // namespace kel
