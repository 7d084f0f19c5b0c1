// CharString: the platform's text.
//
// Purpose    A text of bytes; every byte but NUL can be kept. Owns its bytes.
// Thread     As std::string: a text may be read by many threads or changed by one.
// Errors     Only running out of memory throws. A null pointer counts as the empty text everywhere.
#pragma once

#include <cstddef>
#include <iosfwd>
#include <string>
#include <string_view>

class CharString {
 public:
  /// What find() and rfind() return when there is nothing.
  static constexpr std::size_t npos = std::string::npos;

  CharString() noexcept = default;
  CharString(const char* text) : text_(text == nullptr ? "" : text) {}
  CharString(const char* text, std::size_t length);
  CharString(const std::string& text) : text_(text) {}
  CharString(std::string&& text) noexcept : text_(std::move(text)) {}
  explicit CharString(std::string_view text) : text_(text) {}

  CharString& operator=(const char* text) {
    text_ = text == nullptr ? "" : text;
    return *this;
  }

  /// Takes the first `length` bytes of `text`; the value -1 (all bits set) takes it whole.
  void setCharStr(const char* text, unsigned int length);

  [[nodiscard]] const char* c_str() const noexcept { return text_.c_str(); }
  operator const char*() const noexcept { return text_.c_str(); }
  [[nodiscard]] const std::string& str() const noexcept { return text_; }
  [[nodiscard]] std::string_view view() const noexcept { return text_; }

  /// Length in bytes.
  [[nodiscard]] std::size_t len() const noexcept { return text_.size(); }
  [[nodiscard]] bool isEmpty() const noexcept { return text_.empty(); }
  /// The byte at the index, which must be below len().
  [[nodiscard]] char at(std::size_t index) const { return text_[index]; }

  /// Below, equal or above zero, upper and lower case (of ASCII) being the same.
  [[nodiscard]] int icmp(const char* other) const noexcept;
  [[nodiscard]] int cmp(const char* other) const noexcept;

  /// The position of the first occurrence at or after `from`, or npos.
  [[nodiscard]] std::size_t find(const char* what, std::size_t from = 0) const noexcept;
  [[nodiscard]] std::size_t find(const CharString& what, std::size_t from = 0) const noexcept {
    return text_.find(what.text_, from);
  }
  [[nodiscard]] std::size_t find(char what, std::size_t from = 0) const noexcept {
    return text_.find(what, from);
  }
  [[nodiscard]] bool contains(const char* what) const noexcept { return find(what) != npos; }
  [[nodiscard]] bool contains(const CharString& what) const noexcept { return find(what) != npos; }
  /// `count` bytes from the index on, as many as there are; empty when the index is past the end.
  [[nodiscard]] CharString substring(std::size_t from, std::size_t count = npos) const;

  CharString& operator+=(const CharString& other) {
    text_ += other.text_;
    return *this;
  }
  CharString& operator+=(const char* other) {
    text_ += other == nullptr ? "" : other;
    return *this;
  }
  CharString& operator+=(char other) {
    text_ += other;
    return *this;
  }

  friend CharString operator+(const CharString& left, const CharString& right) {
    return {left.text_ + right.text_};
  }
  friend CharString operator+(const CharString& left, const char* right) {
    return {left.text_ + (right == nullptr ? "" : right)};
  }
  friend CharString operator+(const char* left, const CharString& right) {
    return {(left == nullptr ? "" : left) + right.text_};
  }

  friend bool operator==(const CharString& left, const CharString& right) noexcept {
    return left.text_ == right.text_;
  }
  friend bool operator!=(const CharString& left, const CharString& right) noexcept {
    return left.text_ != right.text_;
  }
  friend bool operator==(const CharString& left, const char* right) noexcept { return left.cmp(right) == 0; }
  friend bool operator==(const char* left, const CharString& right) noexcept { return right.cmp(left) == 0; }
  friend bool operator!=(const CharString& left, const char* right) noexcept { return left.cmp(right) != 0; }
  friend bool operator!=(const char* left, const CharString& right) noexcept { return right.cmp(left) != 0; }
  /// Order by bytes.
  friend bool operator<(const CharString& left, const CharString& right) noexcept {
    return left.text_ < right.text_;
  }

 private:
  std::string text_;
};

/// Reads one configuration value: blanks are skipped; a value in double quotes ends at the closing quote, any
/// other one before the next blank or '#'. Nothing to read leaves the text empty and the stream failed.
std::istream& operator>>(std::istream& in, CharString& text);
std::ostream& operator<<(std::ostream& out, const CharString& text);
