// Resp: commands out, replies in, as the Redis protocol writes them.
//
// Purpose    RespWriter puts a command straight into an output buffer. ReplyReader wraps hiredis' parser so
//            that a reply lands in one flat buffer instead of a tree of allocations. ReplyCursor walks
//            through it.
// Ownership  A cursor and the texts it gives point into its reader and hold until the reader goes on.
// Thread     Any one at a time.
// Errors     Nothing throws but running out of memory. A cursor read past the end or against the type gives
//            nil, 0 or empty text, so a strange reply cannot do harm.
#pragma once

#include <charconv>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

struct redisReader;

namespace pvss::redis {

/// Appends one command: header(n) and then exactly n texts.
class RespWriter {
 public:
  explicit RespWriter(std::string& out) : out_(out) {}
  void header(std::size_t parts) { line('*', parts); }
  void text(std::string_view bytes) {
    line('$', bytes.size());
    out_ += bytes;
    out_ += "\r\n";
  }
  template <typename Integer>
  void number(Integer value) {
    char digits[24];
    const auto end = std::to_chars(digits, digits + sizeof digits, value).ptr;
    text(std::string_view(digits, static_cast<std::size_t>(end - digits)));
  }

 private:
  void line(char kind, std::size_t count) {
    char digits[24];
    digits[0] = kind;
    auto end = std::to_chars(digits + 1, digits + sizeof digits - 2, count).ptr;
    *end++ = '\r';
    *end++ = '\n';
    out_.append(digits, static_cast<std::size_t>(end - digits));
  }
  std::string& out_;
};

enum class ReplyType : std::uint8_t { nil, integer, text, error, array };

struct ReplyNode {
  ReplyType type = ReplyType::nil;
  std::int64_t integer = 0;  ///< the number, the length of an array
  std::size_t offset = 0;    ///< of the text in the buffer
  std::size_t size = 0;
};

/// Walks one reply from the front; each call consumes what it returns.
class ReplyCursor {
 public:
  ReplyCursor(const std::vector<ReplyNode>& nodes, const std::string& bytes) : nodes_(nodes), bytes_(bytes) {}
  [[nodiscard]] ReplyType type() const { return at_ < nodes_.size() ? nodes_[at_].type : ReplyType::nil; }
  [[nodiscard]] bool isError() const { return type() == ReplyType::error; }
  [[nodiscard]] bool isNil() const { return type() == ReplyType::nil; }
  [[nodiscard]] bool isArray() const { return type() == ReplyType::array; }
  /// The text of a text or an error, empty for anything else; an array is passed over whole.
  std::string_view text();
  /// The number of an integer or of a text of digits, 0 for anything else.
  std::int64_t integer();
  std::uint64_t unsignedInteger();
  /// The length of an array, whose items come next; 0 for anything else, which is passed over.
  std::size_t array();
  /// Passes over one item with everything in it.
  void skip();

 private:
  const std::vector<ReplyNode>& nodes_;
  const std::string& bytes_;
  std::size_t at_ = 0;
};

class ReplyReader {
 public:
  ReplyReader();
  ~ReplyReader();
  ReplyReader(const ReplyReader&) = delete;
  ReplyReader& operator=(const ReplyReader&) = delete;

  /// Takes what arrived. Feed a few KB at a time and take all replies in between: the parser moves what is
  /// left.
  void feed(const char* bytes, std::size_t size);
  enum class Result : std::uint8_t { reply, more, broken };
  /// `reply`: current() is a whole reply until the next call. `broken`: error() says what was no protocol.
  Result next();
  [[nodiscard]] ReplyCursor current() const { return {nodes_, bytes_}; }
  [[nodiscard]] std::string error() const;

 private:
  friend struct ReplyBuilder;
  std::vector<ReplyNode> nodes_;
  std::string bytes_;
  bool complete_ = false;
  std::unique_ptr<redisReader, void (*)(redisReader*)> parser_;
};

}  // namespace pvss::redis
