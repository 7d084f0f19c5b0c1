#include "store/redis/AttributeText.h"

#include "store/ValueCodec.h"

namespace pvss::redis {

void appendAttributeText(const ElementAttributes& attributes, std::string& out) {
  const auto flag = [&](std::uint8_t bit, char letter, bool set) {
    if ((attributes.mask & bit) == 0) return;
    out += letter;
    out += set ? '1' : '0';
  };
  flag(attributeInvalid, 'i', attributes.invalid);
  flag(attributeUserBit1, '1', attributes.userBit1);
  flag(attributeUserBit2, '2', attributes.userBit2);
  if ((attributes.mask & attributeValue) != 0 && attributes.value) {
    out += 'v';
    if (!appendValueText(*attributes.value, out)) out.pop_back();
  }
}

bool parseAttributeText(std::string_view text, AttributeView& out) {
  out = AttributeView();
  while (!text.empty()) {
    const char letter = text.front();
    if (letter == 'v') {
      out.mask |= attributeValue;
      out.value = text.substr(1);
      return true;
    }
    if (text.size() < 2 || (text[1] != '0' && text[1] != '1')) return false;
    const bool set = text[1] == '1';
    if (letter == 'i') {
      out.mask |= attributeInvalid;
      out.invalid = set;
    } else if (letter == '1') {
      out.mask |= attributeUserBit1;
      out.userBit1 = set;
    } else if (letter == '2') {
      out.mask |= attributeUserBit2;
      out.userBit2 = set;
    } else {
      return false;
    }
    text.remove_prefix(2);
  }
  return out.mask != 0;
}

std::uint8_t maskOfLetters(std::string_view letters) {
  std::uint8_t mask = 0;
  for (const char letter : letters) {
    if (letter == 'v') mask |= attributeValue;
    if (letter == 'i') mask |= attributeInvalid;
    if (letter == '1') mask |= attributeUserBit1;
    if (letter == '2') mask |= attributeUserBit2;
  }
  return mask;
}

std::string lettersOfMask(std::uint8_t mask) {
  std::string out;
  if ((mask & attributeValue) != 0) out += 'v';
  if ((mask & attributeInvalid) != 0) out += 'i';
  if ((mask & attributeUserBit1) != 0) out += '1';
  if ((mask & attributeUserBit2) != 0) out += '2';
  return out;
}

}  // namespace pvss::redis
