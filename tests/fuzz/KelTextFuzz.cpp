// Any text is an address, a topic and a coded name, or is not; what is, comes back as itself.
#include <cstdint>
#include <string>
#include <string_view>

#include "KelUrl.h"
#include "Log.h"
#include "Require.h"
#include "wire/Topics.h"

using fuzz::require;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  std::string error;
  const auto url = kel::KelUrl::parse(text, error);
  require(url.has_value() == error.empty());
  if (url) {
    // What is shown is an address too, of the same place.
    const auto shown = kel::KelUrl::parse(url->describe(), error);
    require(shown && shown->host == url->host && shown->port == url->port && shown->group == url->group);
  }

  error.clear();
  const auto coded = kel::encodeTopicName(text, error);
  require(coded.has_value() == error.empty());
  if (coded) require(kel::decodeTopicName(*coded) == text);

  const kel::TopicSpace topics("g");
  if (const auto parsed = topics.parse(text))
    require(parsed->kind == kel::TopicKind::probe || !parsed->name.empty());
  if (const auto id = kel::PublisherId::parse(text)) require(id->text() == text);
  static_cast<void>(kel::logLevelFrom(text));
  return 0;
}
