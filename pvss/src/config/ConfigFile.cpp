#include "config/ConfigFile.h"

namespace pvss {

namespace {

constexpr std::string_view blanks = " \t\r\v\f";

std::string_view trimmed(std::string_view text) {
  const std::size_t first = text.find_first_not_of(blanks);
  if (first == std::string_view::npos) {
    return {};
  }
  return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

// The line up to a '#' that does not stand in quotes; false when a quote never closes.
bool withoutComment(std::string_view& line) {
  bool quoted = false;
  for (std::size_t index = 0; index < line.size(); ++index) {
    if (line[index] == '"') {
      quoted = !quoted;
    } else if (line[index] == '#' && !quoted) {
      line = line.substr(0, index);
      break;
    }
  }
  return !quoted;
}

std::string takeLine(ConfigFile& file, std::string_view line, int number) {
  // The comment of a comment line may say what it likes.
  if (trimmed(line).substr(0, 1) == "#") {
    return {};
  }
  const bool closed = withoutComment(line);
  line = trimmed(line);
  if (line.empty()) {
    return {};
  }
  if (line.find('\0') != std::string_view::npos) {
    return "a NUL character";
  }
  if (!closed) {
    return "a quote that never closes";
  }
  if (line.front() == '[') {
    const std::string_view name =
        line.back() == ']' ? trimmed(line.substr(1, line.size() - 2)) : std::string_view();
    if (name.empty()) {
      return "a section must be written [name]";
    }
    file.sections.push_back({number, std::string(name), {}});
    return {};
  }
  const std::size_t equal = line.find('=');
  const std::string_view key = trimmed(line.substr(0, equal));
  if (equal == std::string_view::npos) {
    return "no '=' in '" + std::string(line.substr(0, 60)) + "'";
  }
  if (key.empty()) {
    return "no key before '='";
  }
  if (file.sections.empty()) {
    return "an entry before the first [section]";
  }
  file.sections.back().entries.push_back(
      {number, std::string(key), std::string(trimmed(line.substr(equal + 1)))});
  return {};
}

}  // namespace

ConfigFile ConfigFile::parse(std::string_view text) {
  ConfigFile file;
  if (text.substr(0, 3) == "\xef\xbb\xbf") {
    text.remove_prefix(3);  // the byte order mark that some editors write
  }
  for (int number = 1; !text.empty(); ++number) {
    const std::size_t end = text.find('\n');
    file.error = takeLine(file, text.substr(0, end), number);
    if (!file.error.empty()) {
      file.errorLine = number;
      return file;
    }
    text = end == std::string_view::npos ? std::string_view() : text.substr(end + 1);
  }
  return file;
}

}  // namespace pvss
