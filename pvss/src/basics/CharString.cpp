#include "pvss/CharString.h"

#include <strings.h>

#include <cstring>
#include <istream>
#include <ostream>

CharString::CharString(const char* text, std::size_t length)
    : text_(text == nullptr ? "" : text, text == nullptr ? 0 : length) {}

void CharString::setCharStr(const char* text, unsigned int length) {
  if (text == nullptr) {
    text_.clear();
  } else if (length == static_cast<unsigned int>(-1)) {
    text_ = text;
  } else {
    text_.assign(text, strnlen(text, length));
  }
}

int CharString::icmp(const char* other) const noexcept {
  return strcasecmp(text_.c_str(), other == nullptr ? "" : other);
}

int CharString::cmp(const char* other) const noexcept {
  return std::strcmp(text_.c_str(), other == nullptr ? "" : other);
}

std::size_t CharString::find(const char* what, std::size_t from) const noexcept {
  return text_.find(what == nullptr ? "" : what, from);
}

CharString CharString::substring(std::size_t from, std::size_t count) const {
  return from >= text_.size() ? CharString() : CharString(text_.substr(from, count));
}

std::istream& operator>>(std::istream& in, CharString& text) {
  std::string value;
  in >> std::ws;
  if (in.peek() == '"') {
    in.get();
    std::getline(in, value, '"');
    // A quote that never closes ends with the stream; the configuration reader has refused such lines
    // already.
    if (in.eof()) {
      in.setstate(std::ios::failbit);
    }
  } else {
    for (int next = in.peek(); next != std::istream::traits_type::eof(); next = in.peek()) {
      if (std::strchr(" \t\r\n\v\f#", next) != nullptr) {
        break;
      }
      value.push_back(static_cast<char>(in.get()));
    }
    if (value.empty()) {
      in.setstate(std::ios::failbit);
    } else if (in.eof()) {
      in.clear(std::ios::eofbit);
    }
  }
  text = CharString(std::move(value));
  return in;
}

std::ostream& operator<<(std::ostream& out, const CharString& text) {
  return out << text.str();
}
