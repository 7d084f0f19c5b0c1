#include "Output.h"

#include <fmt/format.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>

namespace kelgw {
namespace {

/// Characters, not bytes; wide characters count as one, which is near enough for names.
std::size_t widthOf(std::string_view text) {
  return static_cast<std::size_t>(std::count_if(text.begin(), text.end(), [](char byte) {
    return (static_cast<unsigned char>(byte) & 0xC0U) != 0x80U;
  }));
}

std::string dress(std::string_view text, Style style, bool colours) {
  std::string_view code;
  switch (style) {
    case Style::plain:
      break;
    case Style::head:
      code = "\x1b[1m";
      break;
    case Style::good:
      code = "\x1b[32m";
      break;
    case Style::bad:
      code = "\x1b[31m";
      break;
    case Style::dim:
      code = "\x1b[2m";
      break;
  }
  if (!colours || code.empty()) {
    return std::string(text);
  }
  return std::string(code).append(text).append("\x1b[0m");
}

}  // namespace

std::string Table::text(bool colours) const {
  std::vector<std::size_t> widths;
  for (const std::string& head : heads) {
    widths.push_back(widthOf(head));
  }
  for (const auto& cells : rows) {
    for (std::size_t column = 0; column < cells.size() && column < widths.size(); ++column) {
      widths[column] = std::max(widths[column], widthOf(cells[column].text));
    }
  }
  std::string shown;
  const auto add = [&](const std::vector<Cell>& cells) {
    for (std::size_t column = 0; column < cells.size() && column < widths.size(); ++column) {
      const Cell& cell = cells[column];
      const bool last = column + 1 == widths.size();
      const std::string padding(widths[column] - widthOf(cell.text), ' ');
      if (cell.right) {
        shown += padding;
      }
      shown += dress(cell.text, cell.style, colours);
      if (!last) {
        shown += cell.right ? "" : padding;
        shown += "  ";
      }
    }
    // A row that ends in an empty cell leaves no blanks at its end.
    shown.erase(shown.find_last_not_of(' ') + 1);
    shown += '\n';
  };
  std::vector<Cell> headCells;
  for (std::size_t column = 0; column < heads.size(); ++column) {
    const bool right = !rows.empty() && column < rows.front().size() && rows.front()[column].right;
    headCells.emplace_back(heads[column], Style::head, right);
  }
  add(headCells);
  for (const auto& cells : rows) {
    add(cells);
  }
  return shown;
}

std::string tamed(std::string_view lines) {
  std::string shown;
  for (std::size_t at = 0; at < lines.size(); ++at) {
    const auto byte = static_cast<unsigned char>(lines[at]);
    const auto next = at + 1 < lines.size() ? static_cast<unsigned char>(lines[at + 1]) : 0U;
    const bool wide = byte == 0xC2 && next >= 0x80 && next < 0xA0;
    if (wide || (byte < 0x20 && byte != '\n') || byte == 0x7F) {
      shown += wide ? fmt::format("\\x{:02x}\\x{:02x}", byte, next) : fmt::format("\\x{:02x}", byte);
      at += wide ? 1 : 0;
    } else {
      shown += lines[at];
    }
  }
  return shown;
}

Output::Output(std::FILE* resultStream, std::FILE* remarkStream, bool wantJson)
    : results(resultStream),
      remarks(remarkStream),
      jsonWanted(wantJson),
      colours(!wantJson && ::isatty(::fileno(resultStream)) == 1 && std::getenv("NO_COLOR") == nullptr) {}

bool Output::line(std::string_view text) {
  std::fwrite(text.data(), 1, text.size(), results);
  std::fputc('\n', results);
  return std::fflush(results) == 0 && std::ferror(results) == 0;
}

bool Output::readerGone() const {
  pollfd descriptor{::fileno(results), 0, 0};
  return ::poll(&descriptor, 1, 0) == 1 && (descriptor.revents & POLLERR) != 0;
}

bool Output::table(const Table& table) {
  std::string text = table.text(colours);
  text.pop_back();  // line() adds the last line end
  return line(text);
}

std::string Output::styled(std::string_view text, Style style) const {
  return dress(text, style, colours);
}

void Output::remark(std::string_view text) {
  const std::string whole = "kelgw: " + tamed(text) + "\n";
  std::fwrite(whole.data(), 1, whole.size(), remarks);
  std::fflush(remarks);
}

}  // namespace kelgw
