#include "store/redis/CatalogueText.h"

#include <charconv>

#include "basics/Values.h"

namespace pvss::redis {
namespace {

template <typename Integer>
bool takeNumber(std::string_view& text, Integer& out) {
  const auto [end, code] = std::from_chars(text.data(), text.data() + text.size(), out);
  if (code != std::errc{}) return false;
  text.remove_prefix(static_cast<std::size_t>(end - text.data()));
  return true;
}

bool takePrefix(std::string_view& text, std::string_view prefix) {
  if (!text.starts_with(prefix)) return false;
  text.remove_prefix(prefix.size());
  return true;
}

bool parseBehindType(std::string_view text, CatalogueEntry& entry) {
  if (takePrefix(text, " d") && !takeNumber(text, entry.disabled)) return false;
  if (text.empty()) return true;
  std::size_t driver = 0;
  if (!takePrefix(text, " a") || !takeNumber(text, entry.addressType) || !takePrefix(text, " ") ||
      !takeNumber(text, driver) || !takePrefix(text, ":") || driver > text.size()) {
    return false;
  }
  entry.driver = text.substr(0, driver);
  entry.reference = text.substr(driver);
  return true;
}

}  // namespace

void appendCatalogueText(const CatalogueEntry& entry, std::string& out) {
  out += typeWord(entry.type);
  if (entry.disabled != 0) out += " d" + std::to_string(entry.disabled);
  if (entry.addressType != 0) {
    out += " a" + std::to_string(entry.addressType) + " " + std::to_string(entry.driver.size()) + ":";
    out += entry.driver;
    out += entry.reference;
  }
}

bool parseCatalogueText(std::string_view text, CatalogueEntry& entry) {
  const std::size_t space = text.find(' ');
  entry.addressType = 0;
  entry.driver.clear();
  entry.reference.clear();
  entry.disabled = 0;
  entry.type = typeOfWord(text.substr(0, space));
  if (entry.type == DPELEMENT_NOELEMENT) return false;
  if (space == std::string_view::npos || parseBehindType(text.substr(space), entry)) return true;
  entry.type = DPELEMENT_NOELEMENT;
  return false;
}

}  // namespace pvss::redis
