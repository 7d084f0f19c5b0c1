// Datum: one value, scalar or list, as it stands on a command line, in a table or in a JSON line.
//
// Purpose    Both sides of the gateway have typed values; the tool reads and shows them in one way.
// Thread     Plain values, no shared state.
// Errors     Parsing throws DatumError with a sentence that names the text and what was expected.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace kelgw {

enum class Kind : std::uint8_t {
  boolean,
  byte8,
  int16,
  int32,
  int64,
  uint32,
  bits32,
  char8,
  float32,
  float64,
  text
};

struct DatumType {
  Kind kind = Kind::text;
  bool list = false;
  bool operator==(const DatumType&) const = default;
};

/// Whole numbers, bit patterns and characters are kept as 64-bit integers.
using Item = std::variant<bool, std::int64_t, float, double, std::string>;

struct Datum {
  DatumType type;
  std::vector<Item> items;  ///< exactly one when the type is no list
};

class DatumError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// Reads a value. Lists: `[1, 2, 3]` or `1,2,3`; an item in double quotes may hold commas and escapes. A
/// scalar text is taken as it stands, unless `escapes` asks for \n, \t, \\, \" and \xNN to be understood.
[[nodiscard]] Datum parseDatum(DatumType type, std::string_view text, bool escapes = false);

/// For people: texts in double quotes with unprintable bytes escaped, bit patterns in hexadecimal, shortest
/// decimal that reads back as the same number. `widest` 0 shows everything; otherwise long values end in
/// "...".
[[nodiscard]] std::string showDatum(const Datum& datum, std::size_t widest = 0);

/// Replaces control characters, backslashes and bytes that are no valid UTF-8 by escapes.
[[nodiscard]] std::string escapeText(std::string_view text);
/// The reverse of escapeText; throws DatumError for an unknown escape.
[[nodiscard]] std::string unescapeText(std::string_view text);
/// The length of the valid UTF-8 sequence at the beginning of the text, 0 when there is none.
[[nodiscard]] std::size_t utf8SequenceLength(std::string_view text);

/// Whole decimal or 0x number within limits; throws DatumError.
[[nodiscard]] std::int64_t parseWhole(std::string_view text, std::int64_t lowest, std::int64_t highest);

}  // namespace kelgw
