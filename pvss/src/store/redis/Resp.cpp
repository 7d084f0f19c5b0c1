#include "store/redis/Resp.h"

#include <hiredis/read.h>

namespace pvss::redis {

// hiredis wants a pointer for each object and does nothing with it but hand it back; any will do that is not
// null.
struct ReplyBuilder {
  static ReplyReader& reader(const redisReadTask* task) { return *static_cast<ReplyReader*>(task->privdata); }
  static void* token(ReplyReader& r) { return &r; }

  static void* string(const redisReadTask* task, char* bytes, std::size_t size) {
    ReplyReader& r = reader(task);
    ReplyNode node;
    node.type = task->type == REDIS_REPLY_ERROR ? ReplyType::error : ReplyType::text;
    node.offset = r.bytes_.size();
    node.size = size;
    r.bytes_.append(bytes, size);
    r.nodes_.push_back(node);
    return token(r);
  }
  static void* array(const redisReadTask* task, int elements) {
    ReplyReader& r = reader(task);
    ReplyNode node;
    node.type = ReplyType::array;
    node.integer = elements;
    r.nodes_.push_back(node);
    return token(r);
  }
  static void* integer(const redisReadTask* task, long long value) {
    ReplyReader& r = reader(task);
    ReplyNode node;
    node.type = ReplyType::integer;
    node.integer = value;
    r.nodes_.push_back(node);
    return token(r);
  }
  static void* nil(const redisReadTask* task) {
    ReplyReader& r = reader(task);
    r.nodes_.emplace_back();
    return token(r);
  }
  static void free(void*) {}

  static redisReplyObjectFunctions functions;
};

redisReplyObjectFunctions ReplyBuilder::functions = {
    ReplyBuilder::string, ReplyBuilder::array, ReplyBuilder::integer, ReplyBuilder::nil, ReplyBuilder::free};

std::string_view ReplyCursor::text() {
  const ReplyType now = type();
  if (now == ReplyType::text || now == ReplyType::error) {
    const ReplyNode& node = nodes_[at_++];
    return std::string_view(bytes_).substr(node.offset, node.size);
  }
  skip();
  return {};
}

std::int64_t ReplyCursor::integer() {
  if (type() == ReplyType::integer) return nodes_[at_++].integer;
  const std::string_view digits = text();
  std::int64_t value = 0;
  std::from_chars(digits.data(), digits.data() + digits.size(), value);
  return value;
}

std::uint64_t ReplyCursor::unsignedInteger() {
  if (type() == ReplyType::integer) {
    const std::int64_t value = nodes_[at_++].integer;
    return value < 0 ? 0 : static_cast<std::uint64_t>(value);
  }
  const std::string_view digits = text();
  std::uint64_t value = 0;
  std::from_chars(digits.data(), digits.data() + digits.size(), value);
  return value;
}

std::size_t ReplyCursor::array() {
  if (!isArray()) {
    skip();
    return 0;
  }
  const std::int64_t length = nodes_[at_++].integer;
  return length < 0 ? 0 : static_cast<std::size_t>(length);
}

void ReplyCursor::skip() {
  std::size_t left = 1;
  while (left > 0 && at_ < nodes_.size()) {
    const ReplyNode& node = nodes_[at_++];
    --left;
    if (node.type == ReplyType::array && node.integer > 0) left += static_cast<std::size_t>(node.integer);
  }
}

ReplyReader::ReplyReader()
    : parser_(redisReaderCreateWithFunctions(&ReplyBuilder::functions), redisReaderFree) {
  if (!parser_) throw std::bad_alloc();
  parser_->privdata = this;
}

ReplyReader::~ReplyReader() = default;

void ReplyReader::feed(const char* bytes, std::size_t size) {
  redisReaderFeed(parser_.get(), bytes, size);
}

ReplyReader::Result ReplyReader::next() {
  if (complete_) {
    // One huge reply (a catalogue) must not keep its memory for ever.
    constexpr std::size_t keepBytes = std::size_t{256} * 1024;
    if (bytes_.capacity() > keepBytes) {
      bytes_ = std::string();
      nodes_ = std::vector<ReplyNode>();
    }
    bytes_.clear();
    nodes_.clear();
    complete_ = false;
  }
  void* reply = nullptr;
  if (redisReaderGetReply(parser_.get(), &reply) != REDIS_OK) return Result::broken;
  if (reply == nullptr) return Result::more;
  complete_ = true;
  return Result::reply;
}

std::string ReplyReader::error() const {
  return parser_->errstr;
}

}  // namespace pvss::redis
