// AttributeText: what a write does to one element, as it travels to the server and stands in the log.
//
// Form       ["i" 0|1] ["1" 0|1] ["2" 0|1] ["v" <text of the value, to the end>], at least one of them:
//            "i01121v3.5" is invalid 0, user bit 1 1, user bit 2 1, value 3.5.
// Thread     Pure functions.
#pragma once

#include <string>
#include <string_view>

#include "store/DatapointStore.h"

namespace pvss::redis {

/// Appends the text of everything in the mask. A value that is missing or has no text form is left out.
void appendAttributeText(const ElementAttributes& attributes, std::string& out);

/// The text taken apart; the value's own text stays as it is.
struct AttributeView {
  std::uint8_t mask = 0;
  bool invalid = true;
  bool userBit1 = false;
  bool userBit2 = false;
  std::string_view value;
};

/// False when it is no such text.
bool parseAttributeText(std::string_view text, AttributeView& out);

/// The mask that letters such as "i12v" stand for, and the letters of a mask in the order v i 1 2.
std::uint8_t maskOfLetters(std::string_view letters);
std::string lettersOfMask(std::uint8_t mask);

}  // namespace pvss::redis
