// ValueCodec: the text form of values, as stores and tools keep and show them.
//
// Form       bit "0" or "1"; char, int, uint and bit32 decimal (a char as its byte, 0 to 255); float the
//            shortest decimal that reads back as the same number, or "nan", "inf", "-inf"; text its bytes;
//            arrays of numbers comma-separated, "" when empty; arrays of text as netstrings one after the
//            other, `5:hello0:3:abc`.
// Thread     Pure functions; no I/O, nothing blocks. Only running out of memory throws.
#pragma once

#include <string>
#include <string_view>

#include "basics/Values.h"

namespace pvss {

/// Appends the text form of the value. False, and nothing appended, for a type that has none.
bool appendValueText(const Variable& value, std::string& text);

/// The text form of the value; empty for a type that has none.
[[nodiscard]] std::string valueText(const Variable& value);

/// Reads the text form of a value of an element of this type. Null, and the reason in `error`, when the text
/// is not exactly one such value.
[[nodiscard]] SharedValue parseValueText(DpElementType type, std::string_view text, std::string& error);

}  // namespace pvss
