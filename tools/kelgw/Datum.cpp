#include "Datum.h"

#include <fmt/format.h>

#include <charconv>
#include <cmath>
#include <limits>
#include <system_error>

namespace kelgw {
namespace {

std::string_view trimmed(std::string_view text) {
  const std::string_view blanks = " \t";
  const auto first = text.find_first_not_of(blanks);
  if (first == std::string_view::npos) {
    return {};
  }
  return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

struct WholeRange {
  std::int64_t lowest;
  std::int64_t highest;
};

WholeRange rangeOf(Kind kind) {
  switch (kind) {
    case Kind::byte8:
      return {-128, 255};
    case Kind::int16:
      return {-32768, 32767};
    case Kind::int32:
      return {std::numeric_limits<std::int32_t>::min(), std::numeric_limits<std::int32_t>::max()};
    case Kind::uint32:
    case Kind::bits32:
      return {0, std::numeric_limits<std::uint32_t>::max()};
    default:
      return {std::numeric_limits<std::int64_t>::min(), std::numeric_limits<std::int64_t>::max()};
  }
}

template <typename Real>
Real parseReal(std::string_view text) {
  std::string_view digits = text;
  if (!digits.empty() && digits.front() == '+') {
    digits.remove_prefix(1);
  }
  Real value = 0;
  const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), value);
  if (error == std::errc::result_out_of_range) {
    throw DatumError(fmt::format("{} is outside the range of the type", escapeText(text)));
  }
  if (error != std::errc() || end != digits.data() + digits.size() || digits.empty()) {
    throw DatumError(fmt::format("\"{}\" is not a number", escapeText(text)));
  }
  return value;
}

bool parseBoolean(std::string_view text) {
  if (text == "true" || text == "1" || text == "on" || text == "yes") {
    return true;
  }
  if (text == "false" || text == "0" || text == "off" || text == "no") {
    return false;
  }
  throw DatumError(fmt::format("\"{}\" is neither true nor false", escapeText(text)));
}

/// As it is shown: 'A' in quotes, anything else by number; a character that is no digit also without quotes.
std::int64_t parseCharacter(std::string_view text) {
  if (text.size() == 3 && text.front() == '\'' && text.back() == '\'') {
    return static_cast<unsigned char>(text[1]);
  }
  if (text.size() == 1 && (text.front() < '0' || text.front() > '9')) {
    return static_cast<unsigned char>(text.front());
  }
  try {
    return parseWhole(trimmed(text), 0, 255);
  } catch (const DatumError&) {
    throw DatumError(
        fmt::format("\"{}\" is neither one character nor a number from 0 to 255", escapeText(text)));
  }
}

Item parseItem(Kind kind, std::string_view text) {
  switch (kind) {
    case Kind::boolean:
      return parseBoolean(trimmed(text));
    case Kind::char8:
      return parseCharacter(text);
    case Kind::float32:
      return parseReal<float>(trimmed(text));
    case Kind::float64:
      return parseReal<double>(trimmed(text));
    case Kind::text:
      return std::string(text);
    case Kind::byte8:
      // A byte is a pattern: -1 and 255 are the same one.
      return parseWhole(trimmed(text), rangeOf(kind).lowest, rangeOf(kind).highest) & 0xFF;
    default:
      return parseWhole(trimmed(text), rangeOf(kind).lowest, rangeOf(kind).highest);
  }
}

/// One item of a list: bare up to the next comma, or in double quotes.
std::string takeListItem(std::string_view& rest) {
  rest = trimmed(rest);
  if (!rest.empty() && rest.front() == '"') {
    std::size_t end = 1;
    while (end < rest.size() && rest[end] != '"') {
      end += rest[end] == '\\' ? 2U : 1U;
    }
    if (end >= rest.size()) {
      throw DatumError("a quoted item of the list is not closed");
    }
    std::string item = unescapeText(rest.substr(1, end - 1));
    rest = trimmed(rest.substr(end + 1));
    if (!rest.empty() && rest.front() != ',') {
      throw DatumError(fmt::format("expected a comma before \"{}\"", escapeText(rest)));
    }
    return item;
  }
  const std::size_t comma = rest.find(',');
  std::string item(trimmed(rest.substr(0, comma)));
  rest = comma == std::string_view::npos ? std::string_view{} : rest.substr(comma);
  return item;
}

std::vector<Item> parseList(Kind kind, std::string_view text) {
  std::string_view rest = trimmed(text);
  if (!rest.empty() && rest.front() == '[') {
    if (rest.size() < 2 || rest.back() != ']') {
      throw DatumError("the list begins with [ and does not end with ]");
    }
    rest = trimmed(rest.substr(1, rest.size() - 2));
  }
  std::vector<Item> items;
  if (rest.empty()) {
    return items;
  }
  while (true) {
    items.push_back(parseItem(kind, takeListItem(rest)));
    if (rest.empty()) {
      return items;
    }
    rest.remove_prefix(1);  // the comma
  }
}

std::string showReal(double value, bool single) {
  if (std::isnan(value)) {
    return "nan";
  }
  // fmt prints the shortest decimal that reads back as the same number of that width.
  return single ? fmt::format("{}", static_cast<float>(value)) : fmt::format("{}", value);
}

std::string showItem(Kind kind, const Item& item) {
  switch (kind) {
    case Kind::boolean:
      return std::get<bool>(item) ? "true" : "false";
    case Kind::bits32:
      return fmt::format("0x{:08X}", std::get<std::int64_t>(item));
    case Kind::char8: {
      const auto code = std::get<std::int64_t>(item);
      if (code >= 0x20 && code < 0x7f) {
        return fmt::format("'{}'", static_cast<char>(code));
      }
      return fmt::format("{}", code);
    }
    case Kind::float32:
      return showReal(std::get<float>(item), true);
    case Kind::float64:
      return showReal(std::get<double>(item), false);
    case Kind::text:
      return fmt::format("\"{}\"", escapeText(std::get<std::string>(item)));
    default:
      return fmt::format("{}", std::get<std::int64_t>(item));
  }
}

/// Control characters above ASCII, among them those that reverse the direction of what follows on a terminal.
bool isControl(std::string_view character) {
  if (character.size() == 2) {
    return character[0] == '\xC2' && static_cast<unsigned char>(character[1]) < 0xA0;
  }
  return (character >= "\xE2\x80\xA8" && character <= "\xE2\x80\xAE") ||
         (character >= "\xE2\x81\xA6" && character <= "\xE2\x81\xA9");
}

int hexDigit(char digit) {
  if (digit >= '0' && digit <= '9') {
    return digit - '0';
  }
  if (digit >= 'a' && digit <= 'f') {
    return digit - 'a' + 10;
  }
  if (digit >= 'A' && digit <= 'F') {
    return digit - 'A' + 10;
  }
  return -1;
}

}  // namespace

std::int64_t parseWhole(std::string_view text, std::int64_t lowest, std::int64_t highest) {
  std::string_view digits = text;
  bool negative = false;
  if (!digits.empty() && (digits.front() == '-' || digits.front() == '+')) {
    negative = digits.front() == '-';
    digits.remove_prefix(1);
  }
  int base = 10;
  if (digits.starts_with("0x") || digits.starts_with("0X")) {
    base = 16;
    digits.remove_prefix(2);
  }
  std::uint64_t magnitude = 0;
  const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), magnitude, base);
  const bool whole = end == digits.data() + digits.size() && !digits.empty();
  if (!whole || error == std::errc::invalid_argument) {
    throw DatumError(fmt::format("\"{}\" is not a whole number", escapeText(text)));
  }
  const std::uint64_t limit = negative ? std::uint64_t{1} << 63U
                                       : static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());
  const auto value = static_cast<std::int64_t>(negative ? ~magnitude + 1 : magnitude);
  if (error == std::errc::result_out_of_range || magnitude > limit || value < lowest || value > highest) {
    throw DatumError(fmt::format("{} is not between {} and {}", escapeText(text), lowest, highest));
  }
  return value;
}

Datum parseDatum(DatumType type, std::string_view text, bool escapes) {
  Datum datum{type, {}};
  if (type.list) {
    datum.items = parseList(type.kind, text);
  } else if (type.kind == Kind::text && escapes) {
    datum.items.emplace_back(unescapeText(text));
  } else {
    datum.items.push_back(parseItem(type.kind, text));
  }
  return datum;
}

std::string showDatum(const Datum& datum, std::size_t widest) {
  std::string shown;
  if (!datum.type.list) {
    shown = datum.items.empty() ? std::string() : showItem(datum.type.kind, datum.items.front());
  } else {
    shown += '[';
    for (const Item& item : datum.items) {
      if (shown.size() > 1) {
        shown += ", ";
      }
      shown += showItem(datum.type.kind, item);
      if (widest != 0 && shown.size() > widest) {
        break;
      }
    }
    shown += "]";
  }
  if (widest != 0 && shown.size() > widest) {
    std::size_t cut = widest > 3 ? widest - 3 : 0;
    while (cut > 0 && (static_cast<unsigned char>(shown[cut]) & 0xC0U) == 0x80U) {
      --cut;  // never inside a character
    }
    shown.resize(cut);
    shown += "...";
    if (datum.type.list) {
      shown += fmt::format(" ({} items)", datum.items.size());
    }
  }
  return shown;
}

std::size_t utf8SequenceLength(std::string_view text) {
  if (text.empty()) {
    return 0;
  }
  const auto byteAt = [&](std::size_t index) { return static_cast<unsigned char>(text[index]); };
  const unsigned char lead = byteAt(0);
  if (lead < 0x80) {
    return 1;
  }
  std::size_t length = 0;
  unsigned char low = 0x80;
  unsigned char high = 0xBF;
  if (lead >= 0xC2 && lead <= 0xDF) {
    length = 2;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    length = 3;
    low = lead == 0xE0 ? 0xA0 : 0x80;   // no overlong forms
    high = lead == 0xED ? 0x9F : 0xBF;  // no surrogates
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    length = 4;
    low = lead == 0xF0 ? 0x90 : 0x80;
    high = lead == 0xF4 ? 0x8F : 0xBF;
  } else {
    return 0;
  }
  if (text.size() < length || byteAt(1) < low || byteAt(1) > high) {
    return 0;
  }
  for (std::size_t index = 2; index < length; ++index) {
    if (byteAt(index) < 0x80 || byteAt(index) > 0xBF) {
      return 0;
    }
  }
  return length;
}

std::string escapeText(std::string_view text) {
  std::string shown;
  shown.reserve(text.size());
  for (std::size_t at = 0; at < text.size();) {
    const char byte = text[at];
    const std::size_t length = utf8SequenceLength(text.substr(at));
    if (length > 1 && !isControl(text.substr(at, length))) {
      shown.append(text.substr(at, length));
      at += length;
      continue;
    }
    if (byte == '\n') {
      shown += "\\n";
    } else if (byte == '\t') {
      shown += "\\t";
    } else if (byte == '\\' || byte == '"') {
      shown += '\\';
      shown += byte;
    } else if (byte >= 0x20 && byte < 0x7f) {
      shown += byte;
    } else {
      shown += fmt::format("\\x{:02x}", static_cast<unsigned char>(byte));
    }
    ++at;
  }
  return shown;
}

std::string unescapeText(std::string_view text) {
  std::string plain;
  plain.reserve(text.size());
  for (std::size_t at = 0; at < text.size(); ++at) {
    if (text[at] != '\\') {
      plain += text[at];
      continue;
    }
    const char what = at + 1 < text.size() ? text[at + 1] : '\0';
    const bool hex =
        what == 'x' && at + 3 < text.size() && hexDigit(text[at + 2]) >= 0 && hexDigit(text[at + 3]) >= 0;
    if (what == 'n') {
      plain += '\n';
    } else if (what == 't') {
      plain += '\t';
    } else if (what == '\\' || what == '"') {
      plain += what;
    } else if (hex) {
      plain += static_cast<char>(hexDigit(text[at + 2]) * 16 + hexDigit(text[at + 3]));
      at += 2;
    } else {
      throw DatumError(fmt::format("unknown escape after \"{}\": known are \\n \\t \\\\ \\\" and \\xNN",
                                   escapeText(plain)));
    }
    ++at;
  }
  return plain;
}

}  // namespace kelgw
