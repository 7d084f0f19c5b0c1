#include "SString.h"

#include <cstring>
#include <memory>

const char SString::null = '\0';

namespace {

const char* orEmpty(const char* text) {
  return text != nullptr ? text : "";
}

unsigned int sizeWithTerminator(const char* text) {
  return static_cast<unsigned int>(std::strlen(text) + 1);
}

}  // namespace

SString::SString() : stringStore(&null, 1) {}

SString::SString(const std::string& text) : SString(text.c_str()) {}

SString::SString(const SString& text) : SString(static_cast<const char*>(text)) {}

SString::SString(const char* text) : stringStore(sizeWithTerminator(orEmpty(text))) {
  assign(text);
}

SString::SString(const char* text, unsigned int count) : stringStore(text, count) {
  stringStore.write(&null, 1);
}

SString::~SString() = default;

void SString::assign(const char* text) {
  const char* const source = orEmpty(text);
  stringStore.write(source, sizeWithTerminator(source), 0);
}

SString& SString::append(const char* text) {
  const char* const source = orEmpty(text);
  stringStore.write(source, sizeWithTerminator(source), strLen());  // over the old terminator
  return *this;
}

SString& SString::operator=(const std::string& text) {
  assign(text.c_str());
  return *this;
}

SString& SString::operator=(const SString& text) {
  if (this != &text) {
    assign(text.getString());
  }
  return *this;
}

SString& SString::operator=(const char* text) {
  assign(text);
  return *this;
}

bool SString::operator==(const std::string& text) const {
  return *this == text.c_str();
}
bool SString::operator==(const SString& text) const {
  return *this == text.getString();
}
bool SString::operator==(const char* text) const {
  return std::strcmp(getString(), orEmpty(text)) == 0;
}

SString& SString::operator+=(const std::string& text) {
  return append(text.c_str());
}
SString& SString::operator+=(const SString& text) {
  return append(text.getString());
}
SString& SString::operator+=(const char* text) {
  return append(text);
}

SString SString::operator+(const std::string& text) const {
  return SString(*this) += text;
}
SString SString::operator+(const SString& text) const {
  return SString(*this) += text;
}
SString SString::operator+(const char* text) const {
  return SString(*this) += text;
}

SString::operator const std::string() const {
  return getString();
}

unsigned int SString::strLen() const {
  const char* const text = getString();
  return text != nullptr ? static_cast<unsigned int>(std::strlen(text)) : 0;
}

std::vector<SString>* SString::splitAt(char separator) const {
  auto pieces = std::make_unique<std::vector<SString>>();
  const char* const text = getString();
  unsigned int start = 0;
  unsigned int i = 0;
  while (i <= strLen()) {
    const bool atEnd = i == strLen();
    if (text[i] != separator && !atEnd) {
      ++i;
      continue;
    }
    unsigned int length = i - start;
    if (atEnd && text[i] == separator && length > 0) {
      --length;
    }
    if (length > 0) {
      pieces->emplace_back(text + start, length);
    }
    start = ++i;
  }
  return pieces.release();
}
