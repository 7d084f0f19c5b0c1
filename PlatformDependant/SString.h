// SString: the runtime layer's character string; it names locks and events.
//
// Purpose    A NUL-terminated text in a DataBlock. Comparing and joining work on the characters before the
// NUL. Ownership  Owns its storage; pointers into it last until the next change. Thread     Not thread-safe.
// Errors     A null C string counts as the empty one. Only memory can run out.
#pragma once

#include <string>
#include <vector>

#include "DataBlock.h"

class SString {
 public:
  SString();
  SString(const std::string& text);
  SString(const SString& text);
  SString(const char* text);
  /// The first `count` characters at `text`.
  SString(const char* text, unsigned int count);
  virtual ~SString();

  void assign(const char* text);
  SString& append(const char* text);

  SString& operator=(const std::string& text);
  SString& operator=(const SString& text);
  SString& operator=(const char* text);

  [[nodiscard]] bool operator==(const std::string& text) const;
  [[nodiscard]] bool operator==(const SString& text) const;
  [[nodiscard]] bool operator==(const char* text) const;
  [[nodiscard]] bool operator!=(const std::string& text) const { return !(*this == text); }
  [[nodiscard]] bool operator!=(const SString& text) const { return !(*this == text); }
  [[nodiscard]] bool operator!=(const char* text) const { return !(*this == text); }

  SString& operator+=(const std::string& text);
  SString& operator+=(const SString& text);
  SString& operator+=(const char* text);

  [[nodiscard]] SString operator+(const std::string& text) const;
  [[nodiscard]] SString operator+(const SString& text) const;
  [[nodiscard]] SString operator+(const char* text) const;

  [[nodiscard]] char* getString() const { return stringStore.getDataBlock(); }
  operator char*() { return getString(); }
  operator const char*() const { return getString(); }
  operator const std::string() const;

  [[nodiscard]] unsigned int strLen() const;

  /// The non-empty pieces between the separators. The caller deletes the vector.
  [[nodiscard]] std::vector<SString>* splitAt(char separator) const;

  /// The storage, for those who look at how it grows.
  [[nodiscard]] const DataBlock& storage() const { return stringStore; }

 private:
  static const char null;  ///< the terminator of the empty string

  DataBlock stringStore;
};
