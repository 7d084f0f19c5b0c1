#include "wire/Topics.h"

#include <algorithm>

namespace kel {
namespace {

constexpr std::size_t longestName = 60'000;  // a topic has at most 65,535 bytes
constexpr long deepestName = 180;            // brokers refuse more than about 200 levels

bool isPlain(char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '.' || c == '_' ||
         c == '-';
}

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return -1;
}

std::string encoded(std::string_view name, bool slashIsPlain) {
  constexpr std::string_view digits = "0123456789ABCDEF";
  std::string result;
  result.reserve(name.size());
  for (const char c : name) {
    if (isPlain(c) || (c == '/' && slashIsPlain)) {
      result.push_back(c);
    } else {
      const auto byte = static_cast<unsigned char>(c);
      result.push_back('%');
      result.push_back(digits[byte >> 4U]);
      result.push_back(digits[byte & 15U]);
    }
  }
  return result;
}

}  // namespace

std::optional<std::string> encodeTopicName(std::string_view name, std::string& error) {
  if (name.empty()) {
    error = "the name is empty";
    return std::nullopt;
  }
  std::string result = encoded(name, true);
  if (result.size() > longestName) {
    error = "the name is longer than a topic may be (" + std::to_string(longestName) + " bytes)";
    return std::nullopt;
  }
  if (std::count(result.begin(), result.end(), '/') >= deepestName) {
    error = "the name has more than " + std::to_string(deepestName) + " levels";
    return std::nullopt;
  }
  return result;
}

std::optional<std::string> decodeTopicName(std::string_view coded) {
  std::string result;
  result.reserve(coded.size());
  for (std::size_t i = 0; i < coded.size(); ++i) {
    const char c = coded[i];
    if (isPlain(c) || c == '/') {
      result.push_back(c);
      continue;
    }
    if (c != '%' || i + 2 >= coded.size()) return std::nullopt;
    const int high = hexValue(coded[i + 1]);
    const int low = hexValue(coded[i + 2]);
    if (high < 0 || low < 0) return std::nullopt;
    result.push_back(static_cast<char>(high * 16 + low));
    i += 2;
  }
  return result;
}

std::optional<PublisherId> PublisherId::parse(std::string_view text) {
  const auto slash = text.rfind('/');
  if (slash == std::string_view::npos || slash == 0 || slash + 1 == text.size()) return std::nullopt;
  return PublisherId{std::string(text.substr(0, slash)), std::string(text.substr(slash + 1))};
}

TopicSpace::TopicSpace(std::string_view group)
    : prefix_("kel/" + encoded(group, false) + "/"), dataPrefix_(prefix_ + "data/") {}

std::optional<ParsedTopic> TopicSpace::parse(std::string_view topic) const {
  if (!topic.starts_with(prefix_)) return std::nullopt;
  topic.remove_prefix(prefix_.size());
  if (topic == "probe") return ParsedTopic{TopicKind::probe, {}, {}};
  const auto slash = topic.find('/');
  if (slash == std::string_view::npos) return std::nullopt;
  const std::string_view kind = topic.substr(0, slash);
  std::string_view rest = topic.substr(slash + 1);
  ParsedTopic parsed;
  if (kind == "data") {
    parsed.kind = TopicKind::data;
  } else if (kind == "claim") {
    parsed.kind = TopicKind::claim;
  } else if (kind == "publisher" || kind == "ledger") {
    parsed.kind = kind == "ledger" ? TopicKind::ledger : TopicKind::publisher;
    const auto last = rest.rfind('/');
    if (last == std::string_view::npos || last + 1 == rest.size()) return std::nullopt;
    parsed.incarnation = rest.substr(last + 1);
    rest = rest.substr(0, last);
  } else {
    return std::nullopt;
  }
  const auto name = decodeTopicName(rest);
  if (!name || name->empty()) return std::nullopt;
  parsed.name = *name;
  return parsed;
}

}  // namespace kel
