// Output: what a command says, as an aligned table or lines for people, or as JSON for scripts.
//
// Purpose    Results go to standard output, remarks and errors to standard error. Outside text reaches
//            neither unescaped nor as a format string.
// Thread     One thread; commands hand records from library threads to their own thread first.
#pragma once

#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

#include "Json.h"

namespace kelgw {

enum class Style : std::uint8_t { plain, head, good, bad, dim };

struct Cell {
  std::string text;
  Style style = Style::plain;
  bool right = false;  ///< numbers stand at the right edge of their column
  Cell(std::string content, Style look = Style::plain, bool atRight = false)
      : text(std::move(content)), style(look), right(atRight) {}
  Cell(const char* content) : text(content) {}
};

/// Columns as wide as their widest cell; the last one is not padded.
class Table {
 public:
  explicit Table(std::vector<std::string> columns) : heads(std::move(columns)) {}
  void row(std::vector<Cell> cells) { rows.push_back(std::move(cells)); }
  [[nodiscard]] bool empty() const { return rows.empty(); }
  [[nodiscard]] std::string text(bool colours) const;

 private:
  std::vector<std::string> heads;
  std::vector<std::vector<Cell>> rows;
};

/// The lines without what would steer a terminal, shown as \x1b: names and arguments in what is said may come
/// from anywhere.
[[nodiscard]] std::string tamed(std::string_view lines);

class Output {
 public:
  Output(std::FILE* resultStream, std::FILE* remarkStream, bool wantJson);

  [[nodiscard]] bool json() const { return jsonWanted; }
  [[nodiscard]] bool terminal() const { return colours; }
  /// One whole line, visible at once; false when nobody reads any more (a closed pipe).
  bool line(std::string_view text);
  /// Whether whoever read a pipe on standard output has gone: then a command that only waits may end.
  [[nodiscard]] bool readerGone() const;
  bool event(const Json& json) { return line(json.line()); }
  bool document(const Json& json) { return line(json.document()); }
  bool table(const Table& table);
  [[nodiscard]] std::string styled(std::string_view text, Style style) const;
  /// To standard error: "kelgw: " and the text.
  void remark(std::string_view text);

 private:
  std::FILE* results;
  std::FILE* remarks;
  bool jsonWanted;
  bool colours;
};

}  // namespace kelgw
