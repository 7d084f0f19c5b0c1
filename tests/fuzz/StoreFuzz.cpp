// Any bytes from the store are replies or are none, and what stands in them is taken apart without harm; what
// can be read comes back as itself.
#include <algorithm>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "Require.h"
#include "store/ValueCodec.h"
#include "store/redis/AttributeText.h"
#include "store/redis/CatalogueText.h"
#include "store/redis/Resp.h"

using fuzz::require;

namespace {

using pvss::redis::AttributeView;
using pvss::redis::ReplyCursor;
using pvss::redis::ReplyReader;
using pvss::redis::ReplyType;

void readAttributes(std::string_view text) {
  AttributeView view;
  if (!pvss::redis::parseAttributeText(text, view)) return;
  require(view.mask != 0);
  require(pvss::redis::maskOfLetters(pvss::redis::lettersOfMask(view.mask)) == view.mask);
  std::string error;
  pvss::ElementAttributes attributes;
  attributes.mask = view.mask;
  attributes.invalid = view.invalid;
  attributes.userBit1 = view.userBit1;
  attributes.userBit2 = view.userBit2;
  attributes.value = pvss::parseValueText(DPELEMENT_TEXT, view.value, error);
  if ((view.mask & pvss::attributeValue) != 0 && !attributes.value) return;
  std::string again;
  pvss::redis::appendAttributeText(attributes, again);
  AttributeView second;
  require(pvss::redis::parseAttributeText(again, second));
  require(second.mask == view.mask && second.invalid == view.invalid && second.userBit1 == view.userBit1 &&
          second.userBit2 == view.userBit2 && second.value == view.value);
}

void readCatalogue(std::string_view text) {
  pvss::CatalogueEntry entry;
  if (!pvss::redis::parseCatalogueText(text, entry)) {
    require(entry.type == DPELEMENT_NOELEMENT);
    return;
  }
  require(entry.type != DPELEMENT_NOELEMENT);
  std::string again;
  pvss::redis::appendCatalogueText(entry, again);
  pvss::CatalogueEntry second;
  require(pvss::redis::parseCatalogueText(again, second));
  require(second.type == entry.type && second.disabled == entry.disabled &&
          second.addressType == entry.addressType);
  if (entry.addressType != 0) require(second.driver == entry.driver && second.reference == entry.reference);
}

/// Takes everything out of one reply, and gives its texts.
void walk(ReplyCursor cursor, std::vector<std::string>& texts) {
  std::size_t left = 1;
  while (left > 0) {
    --left;
    switch (cursor.type()) {
      case ReplyType::array:
        left += cursor.array();
        break;
      case ReplyType::integer: {
        ReplyCursor other = cursor;
        const auto number = cursor.integer();
        require(other.unsignedInteger() == (number < 0 ? 0 : static_cast<std::uint64_t>(number)));
        break;
      }
      case ReplyType::text:
      case ReplyType::error:
        texts.emplace_back(cursor.text());
        break;
      case ReplyType::nil:
        cursor.skip();
        break;
    }
  }
  // Past the end there is nothing, however often one asks.
  for (int i = 0; i < 3; ++i) {
    require(cursor.isNil() && cursor.text().empty() && cursor.integer() == 0 && cursor.array() == 0);
    cursor.skip();
  }
}

/// As the change log is read: a reply of another form gives nothing, or little, but no harm.
void readLog(ReplyCursor reply) {
  if (reply.array() == 0) return;
  reply.array();
  reply.skip();
  for (std::size_t entries = std::min<std::size_t>(reply.array(), 1000); entries > 0; --entries) {
    reply.array();
    static_cast<void>(reply.text());
    const std::size_t fields = std::min<std::size_t>(reply.array(), 1000);
    const std::string_view kind = reply.text();
    static_cast<void>(reply.text());
    for (std::size_t i = 2; i + 1 < fields; i += 2) {
      static_cast<void>(reply.text());
      const std::string_view text = reply.text();
      if (kind == "c") {
        readCatalogue(text);
      } else {
        readAttributes(text);
      }
    }
  }
}

void readReplies(std::string_view bytes, std::size_t piece) {
  ReplyReader reader;
  std::vector<std::string> texts;
  while (!bytes.empty()) {
    const std::string_view part = bytes.substr(0, piece);
    bytes.remove_prefix(part.size());
    reader.feed(part.data(), part.size());
    ReplyReader::Result result = reader.next();
    for (; result == ReplyReader::Result::reply; result = reader.next()) {
      walk(reader.current(), texts);
      readLog(reader.current());
      reader.current().skip();
    }
    if (result == ReplyReader::Result::broken) {
      require(!reader.error().empty());
      break;
    }
  }
  // What a command carries is what a server would read.
  std::string out;
  pvss::redis::RespWriter writer(out);
  writer.header(texts.size());
  for (const std::string& text : texts) writer.text(text);
  ReplyReader echo;
  echo.feed(out.data(), out.size());
  require(echo.next() == ReplyReader::Result::reply);
  ReplyCursor cursor = echo.current();
  require(cursor.array() == texts.size());
  for (const std::string& text : texts) require(cursor.text() == text);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  readAttributes(text);
  readCatalogue(text);
  if (!text.empty()) {
    readReplies(text, text.size());
    readReplies(text, 1 + static_cast<unsigned char>(text.front()) % 7);
  }
  return 0;
}
