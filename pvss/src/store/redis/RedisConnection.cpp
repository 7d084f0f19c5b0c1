#include "store/redis/RedisConnection.h"

#include <linux/sockios.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <array>
#include <cassert>
#include <utility>

#include "log/Log.h"
#include "store/Farewell.h"
#include "store/redis/ServerError.h"
#include "store/redis/SignOn.h"

namespace pvss::redis {
namespace {

const char* wordOf(ConnectionState state) {
  switch (state) {
    case ConnectionState::closed:
      return "closed";
    case ConnectionState::finding:
      return "asking the sentinels";
    case ConnectionState::dialing:
      return "dialing";
    case ConnectionState::signingOn:
      return "signing on";
    case ConnectionState::ready:
      return "ready";
  }
  return "?";
}

constexpr std::size_t mostBuffered = std::size_t{1024} * 1024;  // what may lie in buffers on the way

/// Bytes that the system has taken and the other side has not.
std::uint64_t onTheWay(int socket) {
  int bytes = 0;
  return ::ioctl(socket, SIOCOUTQ, &bytes) == 0 && bytes > 0 ? static_cast<std::uint64_t>(bytes) : 0;
}

}  // namespace

RedisConnection::RedisConnection(ConnectionOwner& owner, const StoreAddress& address, const char* name,
                                 Limits limits)
    : owner_(owner),
      address_(address),
      name_(name),
      limits_(limits),
      finder_(address.bySentinel() ? std::make_unique<SentinelFinder>(address_, limits.sentinel) : nullptr),
      dialer_(address_, limits.connect, limits.reply),
      tags_(64) {}

RedisConnection::~RedisConnection() {
  close();
}

void RedisConnection::enter(ConnectionState next, std::string_view cause) {
  if (next == state_) return;
  log::debug("store", "{} connection {} -> {}: {}", name_, wordOf(state_), wordOf(next), cause);
  state_ = next;
}

void RedisConnection::open(Clock::time_point now) {
  close();
  since_ = now;
  if (finder_) {
    enter(ConnectionState::finding, "opened");
    finder_->start(now);
    find(now);
  } else {
    enter(ConnectionState::dialing, "opened");
    dialer_.start(address_.places.front(), now);
    dial(now);
  }
}

void RedisConnection::open(Clock::time_point now, const RedisConnection& other) {
  close();
  since_ = now;
  enter(ConnectionState::dialing, "opened");
  dialer_.start(other.dialer_.place(), other.dialer_.endpoint(), now);
  dial(now);
}

void RedisConnection::close() {
  ++generation_;
  if (finder_) finder_->cancel();
  dialer_.cancel();
  if (std::exchange(speaksAtEnd_, false)) farewell::withdraw();
  stream_.reset();
  output_.clear();
  tagsIn_ = tagsOut_ = 0;
  signOnReplies_ = 0;
  waiting_ = false;
  sent_ = arrived_ = 0;
  enter(ConnectionState::closed, "closed");
}

void RedisConnection::lose(std::string_view reason) {
  std::string kept(reason);
  if (state_ == ConnectionState::signingOn) dialer_.doubt();
  if (finder_ && state_ != ConnectionState::finding) {
    // The sentinels said so, and it led nowhere: the next answer is another one's.
    if (state_ != ConnectionState::ready) finder_->doubt();
    kept.insert(0, "master " + place().text() + ": ");
  }
  close();
  owner_.connectionLost(*this, kept);
}

void RedisConnection::find(Clock::time_point now) {
  finder_->proceed(now);
  if (finder_->state() == SentinelFinder::State::failed) {
    lose(finder_->error());
  } else if (finder_->state() == SentinelFinder::State::done) {
    since_ = now;
    enter(ConnectionState::dialing, "a sentinel has answered");
    dialer_.start(finder_->master(), now);
    dial(now);
  }
}

void RedisConnection::dial(Clock::time_point now) {
  dialer_.proceed(now);
  if (dialer_.state() == Dialer::State::failed) {
    lose(dialer_.error());
  } else if (dialer_.state() == Dialer::State::done) {
    connected(now);
  }
}

void RedisConnection::connected(Clock::time_point now) {
  stream_ = dialer_.take();
  since_ = now;
  enter(ConnectionState::signingOn, "connected");
  signOn();
}

void RedisConnection::signOn() {
  reader_ = std::make_unique<ReplyReader>();
  RespWriter out(output_.tail());
  if (!address_.user.empty() || !address_.passFile.empty()) {
    std::string error;
    if (!appendAuth(output_.tail(), address_.user, address_.passFile, error)) {
      lose(error);
      return;
    }
    ++signOnReplies_;
  }
  if (address_.database != 0) {
    out.header(2);
    out.text("SELECT");
    out.number(address_.database);
    ++signOnReplies_;
  }
  // A round trip in any case, so that "ready" means that a server has spoken.
  out.header(1);
  out.text(finder_ ? "ROLE" : "PING");
  ++signOnReplies_;
  flush();
}

void RedisConnection::signOnReply(ReplyCursor reply) {
  if (reply.isError()) {
    lose(describeServerError(reply.text()));
    return;
  }
  if (--signOnReplies_ > 0) return;
  if (finder_) {
    reply.array();
    if (const std::string_view role = reply.text(); role != "master") {
      lose(std::string(role == "slave" ? "it is a replica" : "it is no master") +
           ", though a sentinel named it: asking the sentinels again");
      return;
    }
  }
  enter(ConnectionState::ready, "signed on");
  owner_.connectionReady(*this);
}

void RedisConnection::pushTag(std::uint64_t tag) {
  if (outstanding() == tags_.size()) {
    std::vector<Due> bigger(tags_.size() * 2);
    for (std::size_t i = tagsOut_; i != tagsIn_; ++i)
      bigger[i & (bigger.size() - 1)] = tags_[i & (tags_.size() - 1)];
    tags_ = std::move(bigger);
  }
  tags_[tagsIn_++ & (tags_.size() - 1)] = {tag, appended()};
}

/// Where the command ends whose reply is due next.
std::uint64_t RedisConnection::oldestEnd() const {
  return outstanding() > 1 ? tags_[(tagsOut_ + 1) & (tags_.size() - 1)].begin : appended();
}

/// How long the server may be silent now. A command that is large is not there yet when this side has sent
/// it.
std::chrono::milliseconds RedisConnection::patience() const {
  const std::uint64_t size =
      std::min<std::uint64_t>(oldestEnd() - tags_[tagsOut_ & (tags_.size() - 1)].begin, mostBuffered);
  return limits_.reply +
         std::chrono::milliseconds(size > limits_.slowest ? size * 1000 / limits_.slowest : 0);
}

/// Whether more of the command whose reply is due next has arrived since the last tick. What lies behind it
/// is no sign of life: a system takes bytes for a process that hangs.
bool RedisConnection::arrivesSlowly() {
  const std::uint64_t before =
      std::exchange(arrived_, sent_ - std::min(onTheWay(stream_->descriptor()), sent_));
  return arrived_ > before && before < oldestEnd();
}

std::string& RedisConnection::command(std::uint64_t tag) {
  assert(ready());
  pushTag(tag);
  return output_.tail();
}

void RedisConnection::sayAtEnd(std::string_view command) {
  if (!address_.tls && !speaksAtEnd_) speaksAtEnd_ = farewell::offer(stream_->descriptor(), command);
}

void RedisConnection::flush() {
  if (!stream_) return;
  while (!output_.empty()) {
    const std::string_view unsent = output_.unsent();
    if (speaksAtEnd_ && !farewell::begin()) return;
    const StreamResult result = stream_->write(unsent.data(), unsent.size());
    if (speaksAtEnd_) {
      farewell::end(result.status == StreamResult::Status::moved && result.bytes == unsent.size());
    }
    if (result.status == StreamResult::Status::wait) return;
    if (result.status != StreamResult::Status::moved) {
      // What the server said last may still be there to be read; reading will then find the end.
      if (!result.peerGone) lose(endReason(result));
      return;
    }
    output_.sent(result.bytes);
    sent_ += result.bytes;
  }
}

pollfd RedisConnection::wanted() const {
  switch (state_) {
    case ConnectionState::closed:
      break;
    case ConnectionState::finding:
      return finder_->wanted();
    case ConnectionState::dialing:
      return dialer_.wanted();
    case ConnectionState::signingOn:
    case ConnectionState::ready: {
      const auto events =
          static_cast<short>(stream_->readEvents() | (hasOutput() ? stream_->writeEvents() : 0));
      return {stream_->descriptor(), events, 0};
    }
  }
  return {-1, 0, 0};
}

void RedisConnection::onReady(short events, Clock::time_point now) {
  switch (state_) {
    case ConnectionState::closed:
      return;
    case ConnectionState::finding:
      return find(now);
    case ConnectionState::dialing:
      return dial(now);
    case ConnectionState::signingOn:
    case ConnectionState::ready:
      break;
  }
  const std::uint64_t generation = generation_;
  const bool readable = (events & (stream_->readEvents() | POLLHUP | POLLERR)) != 0;
  if ((events & stream_->writeEvents()) != 0) flush();
  if (generation == generation_ && readable) readAll(now);
}

std::string RedisConnection::endReason(const StreamResult& result) const {
  const bool failed = result.status == StreamResult::Status::failed;
  std::string reason = failed ? stream_->failure() : "the server closed the connection";
  if (state_ != ConnectionState::signingOn) return reason;
  if (!failed) reason += " before it answered";
  // A TLS port hangs up on plain text, mostly without a word.
  if (!address_.tls && place().path.empty())
    reason += ": perhaps the server speaks TLS on this port; then use " + tlsScheme();
  return reason;
}

std::string RedisConnection::tlsScheme() const {
  return finder_ ? "rediss+sentinel://" : "rediss://";
}

void RedisConnection::readAll(Clock::time_point now) {
  // Small pieces: the parser moves what it has not taken yet, again and again.
  std::array<char, 16384> piece;
  for (int turn = 0; turn < 16 || stream_->holdsMore(); ++turn) {
    const StreamResult result = stream_->read(piece.data(), piece.size());
    if (result.status == StreamResult::Status::wait) return;
    if (result.status != StreamResult::Status::moved) {
      lose(endReason(result));
      return;
    }
    since_ = now;
    if (state_ == ConnectionState::signingOn && !address_.tls && speaksTls(piece[0])) {
      lose("the server speaks TLS on this port: use " + tlsScheme());
      return;
    }
    reader_->feed(piece.data(), result.bytes);
    if (!takeReplies()) return;
    if (result.drained) return;
  }
}

bool RedisConnection::takeReplies() {
  const std::uint64_t generation = generation_;
  while (true) {
    const ReplyReader::Result result = reader_->next();
    if (result == ReplyReader::Result::more) return true;
    if (result == ReplyReader::Result::broken) {
      lose("the server does not speak the Redis protocol: " + reader_->error());
      return false;
    }
    if (state_ == ConnectionState::signingOn) {
      signOnReply(reader_->current());
    } else if (outstanding() == 0) {
      // A server speaks unasked only to say why it hangs up.
      ReplyCursor reply = reader_->current();
      lose(describeServerError(reply.text()));
    } else {
      const std::uint64_t tag = tags_[tagsOut_++ & (tags_.size() - 1)].tag;
      owner_.reply(*this, tag, reader_->current());
    }
    if (generation != generation_) return false;
  }
}

void RedisConnection::tick(Clock::time_point now) {
  switch (state_) {
    case ConnectionState::closed:
      return;
    case ConnectionState::finding:
      find(now);  // keeps its own limit
      return;
    case ConnectionState::dialing:
      dial(now);  // so does this one
      return;
    case ConnectionState::signingOn:
      if (now - since_ >= limits_.connect)
        lose("no answer within " + std::to_string(limits_.connect.count()) + " ms");
      return;
    case ConnectionState::ready:
      if (outstanding() == 0 || !waiting_) {
        waiting_ = outstanding() != 0;
        since_ = now;
      } else if (arrivesSlowly()) {
        since_ = now;
      } else if (now - since_ >= patience()) {
        // Perhaps it was this process that slept: look what has arrived before blaming the server.
        const std::uint64_t generation = generation_;
        readAll(now);
        if (generation == generation_ && since_ != now) {
          lose("no answer within " + std::to_string(patience().count()) + " ms");
        }
      }
      return;
  }
}

}  // namespace pvss::redis
