#include "KelUrl.h"

#include <charconv>
#include <set>

namespace kel {
namespace {

std::optional<int> hexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return std::nullopt;
}

std::optional<std::string> percentDecoded(std::string_view text) {
  std::string result;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '%') {
      result.push_back(text[i]);
      continue;
    }
    if (i + 2 >= text.size()) return std::nullopt;
    const auto high = hexDigit(text[i + 1]);
    const auto low = hexDigit(text[i + 2]);
    if (!high || !low || (*high == 0 && *low == 0)) return std::nullopt;
    result.push_back(static_cast<char>(*high * 16 + *low));
    i += 2;
  }
  return result;
}

bool isPlain(char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '.' || c == '_' ||
         c == '-';
}

bool allPlain(std::string_view text) {
  for (const char c : text) {
    if (!isPlain(c)) return false;
  }
  return true;
}

std::optional<long> wholeNumber(std::string_view text) {
  long value = 0;
  const auto [end, failure] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (failure != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return value;
}

/// Empty when the option is taken, else what is wrong with it.
std::string takeOption(KelUrl& url, std::string_view name, const std::string& value) {
  const std::string option = "option '" + std::string(name) + "'";
  if (value.empty()) return option + " has no value";
  if (name == "group") {
    if (!allPlain(value) || value.size() > 200) {
      return option + " may hold at most 200 letters, digits, '.', '_' and '-'";
    }
    url.group = value;
  } else if (name == "qos") {
    if (value != "0" && value != "1") return option + " must be 0 or 1";
    url.qos = value == "1" ? 1 : 0;
  } else if (name == "keepAlive") {
    const auto seconds = wholeNumber(value);
    if (!seconds || *seconds < 1 || *seconds > 3600) return option + " must be 1 to 3600 seconds";
    url.keepAlive = std::chrono::seconds(*seconds);
  } else if (name == "recordBytes") {
    const auto bytes = wholeNumber(value);
    if (!bytes || *bytes < 65'536 || *bytes > 1'073'741'824) {
      return option + " must be 65536 to 1073741824 bytes";
    }
    url.recordBytes = static_cast<std::size_t>(*bytes);
  } else if (name == "ca" || name == "cert" || name == "key") {
    if (url.scheme != KelUrl::Scheme::mqtts) return option + " needs mqtts://";
    (name == "ca" ? url.ca : name == "cert" ? url.cert : url.key) = value;
  } else if (name == "user" || name == "passfile") {
    if (url.scheme == KelUrl::Scheme::loopback) return option + " has no meaning for loopback:";
    (name == "user" ? url.user : url.passfile) = value;
  } else if (name == "password" || name == "pass") {
    return option + " is refused: a secret does not belong in an address, use passfile";
  } else {
    return option + " is not known";
  }
  return {};
}

std::string takeOptions(KelUrl& url, std::string_view options) {
  std::set<std::string, std::less<>> seen;
  while (!options.empty()) {
    const auto end = options.find('&');
    const std::string_view option = options.substr(0, end);
    options = end == std::string_view::npos ? std::string_view() : options.substr(end + 1);
    const auto equals = option.find('=');
    const std::string_view name = option.substr(0, equals);
    if (equals == std::string_view::npos) return "option '" + std::string(name) + "' has no value";
    const auto value = percentDecoded(option.substr(equals + 1));
    if (!value) return "option '" + std::string(name) + "' has a '%' that is not followed by two hex digits";
    if (!seen.emplace(name).second) return "option '" + std::string(name) + "' is given twice";
    if (std::string wrong = takeOption(url, name, *value); !wrong.empty()) return wrong;
  }
  if (url.cert.empty() != url.key.empty()) return "options 'cert' and 'key' go together";
  if (!url.passfile.empty() && url.user.empty()) return "option 'passfile' needs option 'user'";
  return {};
}

std::string takeHost(KelUrl& url, std::string_view authority) {
  if (authority.find('@') != std::string_view::npos) {
    return "a user or a secret does not belong before the host; use the options user and passfile";
  }
  std::string_view port;
  if (!authority.empty() && authority.front() == '[') {
    const auto close = authority.find(']');
    if (close == std::string_view::npos) return "the host has '[' without ']'";
    url.host = authority.substr(1, close - 1);
    port = authority.substr(close + 1);
    if (!port.empty() && port.front() != ':') return "only a port may follow ']'";
  } else {
    const auto colon = authority.find(':');
    url.host = authority.substr(0, colon);
    port = colon == std::string_view::npos ? std::string_view() : authority.substr(colon);
  }
  if (url.host.empty()) return "the host is missing";
  constexpr std::string_view inBrackets = "0123456789abcdefABCDEF:.";
  const bool isHost = authority.front() == '['
                          ? url.host.find(':') != std::string::npos &&
                                url.host.find_first_not_of(inBrackets) == std::string::npos
                          : allPlain(url.host);
  if (!isHost) return "the host is not a name or an address";
  url.port = url.tls() ? 8883 : 1883;
  if (!port.empty()) {
    const auto number = wholeNumber(port.substr(1));
    if (!number || *number < 1 || *number > 65535) return "the port must be 1 to 65535";
    url.port = static_cast<std::uint16_t>(*number);
  }
  return {};
}

std::string parseInto(KelUrl& url, std::string_view text) {
  const auto question = text.find('?');
  std::string_view place = text.substr(0, question);
  const std::string_view options =
      question == std::string_view::npos ? std::string_view() : text.substr(question + 1);
  constexpr std::string_view loopback = "loopback:";
  constexpr std::string_view mqtt = "mqtt://";
  constexpr std::string_view mqtts = "mqtts://";
  if (place.starts_with(loopback)) {
    url.scheme = KelUrl::Scheme::loopback;
    place.remove_prefix(loopback.size());
    if (!allPlain(place)) return "the broker's name may hold letters, digits, '.', '_' and '-'";
    url.brokerName = place;
  } else if (place.starts_with(mqtt) || place.starts_with(mqtts)) {
    url.scheme = place.starts_with(mqtts) ? KelUrl::Scheme::mqtts : KelUrl::Scheme::mqtt;
    place.remove_prefix(url.tls() ? mqtts.size() : mqtt.size());
    if (!place.empty() && place.back() == '/') place.remove_suffix(1);
    if (std::string wrong = takeHost(url, place); !wrong.empty()) return wrong;
  } else {
    return "it must begin with mqtt://, mqtts:// or loopback:";
  }
  return takeOptions(url, options);
}

}  // namespace

std::optional<KelUrl> KelUrl::parse(std::string_view text, std::string& error) {
  KelUrl url;
  error = parseInto(url, text);
  if (!error.empty()) {
    error = "Kel address: " + error;
    return std::nullopt;
  }
  return url;
}

std::string KelUrl::describe() const {
  if (scheme == Scheme::loopback) return "loopback:" + brokerName + "?group=" + group;
  const bool v6 = host.find(':') != std::string::npos;
  return std::string(tls() ? "mqtts://" : "mqtt://") + (v6 ? "[" + host + "]" : host) + ":" +
         std::to_string(port) + "?group=" + group;
}

}  // namespace kel
