#include "store/redis/SentinelFinder.h"

#include <array>
#include <charconv>

#include "store/redis/SecretFile.h"
#include "store/redis/ServerError.h"
#include "store/redis/SignOn.h"

namespace pvss::redis {

const ServerPlace& SentinelFinder::sentinel() const {
  return address_.places[(first_ + asked_) % address_.places.size()];
}

void SentinelFinder::start(Clock::time_point now) {
  cancel();
  asked_ = 0;
  askNext(now);
}

void SentinelFinder::cancel() {
  close();
  error_.clear();
  state_ = State::idle;
}

void SentinelFinder::close() {
  dialer_.cancel();
  stream_.reset();
  reader_.reset();
  output_.clear();
}

void SentinelFinder::askNext(Clock::time_point now) {
  close();
  since_ = now;
  state_ = State::dialing;
  dialer_.start(sentinel(), now);
  proceed(now);
}

/// This one is no help; on to the next, or to the end.
void SentinelFinder::pass(const std::string& why, Clock::time_point now) {
  error_ += (error_.empty() ? "" : "; ") + sentinel().text() + ": " + why;
  ++asked_;
  if (asked_ < address_.places.size()) {
    askNext(now);
    return;
  }
  close();
  error_ = "no sentinel says where the master '" + address_.masterName + "' is (" + error_ + ")";
  state_ = State::failed;
}

void SentinelFinder::proceed(Clock::time_point now) {
  if (state_ != State::dialing && state_ != State::asking) return;
  if (state_ == State::dialing) {
    dialer_.proceed(now);
    if (dialer_.state() == Dialer::State::failed) {
      const std::string why = dialer_.error();
      pass(why, now);
      return;
    }
    if (dialer_.state() == Dialer::State::done) {
      since_ = now;
      dialed(now);
    }
    return;
  }
  exchange(now);
  if (state_ == State::asking && now - since_ >= limit_) {
    dialer_.doubt();
    pass("no answer within " + std::to_string(limit_.count()) + " ms", now);
  }
}

void SentinelFinder::dialed(Clock::time_point now) {
  stream_ = dialer_.take();
  reader_ = std::make_unique<ReplyReader>();
  state_ = State::asking;
  RespWriter out(output_);
  std::string error;
  replies_ = 1;
  if (!address_.sentinelUser.empty() || !address_.sentinelPassFile.empty()) {
    if (!appendAuth(output_, address_.sentinelUser, address_.sentinelPassFile, error)) {
      pass(error, now);
      return;
    }
    ++replies_;
  }
  out.header(3);
  out.text("SENTINEL");
  out.text("get-master-addr-by-name");
  out.text(address_.masterName);
  exchange(now);
}

void SentinelFinder::exchange(Clock::time_point now) {
  while (!output_.empty()) {
    const StreamResult result = stream_->write(output_.data(), output_.size());
    if (result.status != StreamResult::Status::moved) break;  // what went wrong is found by reading
    output_.erase(0, result.bytes);
  }
  std::array<char, 4096> piece;
  while (true) {
    const StreamResult result = stream_->read(piece.data(), piece.size());
    if (result.status == StreamResult::Status::wait) return;
    if (result.status != StreamResult::Status::moved) {
      std::string why = result.status == StreamResult::Status::failed ? stream_->failure()
                                                                      : "the sentinel closed the connection";
      if (!address_.tls) why += ", perhaps because it speaks TLS on this port";
      pass(why, now);
      return;
    }
    if (!address_.tls && speaksTls(piece[0])) {
      pass("it speaks TLS on this port: use rediss+sentinel://", now);
      return;
    }
    reader_->feed(piece.data(), result.bytes);
    while (true) {
      const ReplyReader::Result next = reader_->next();
      if (next == ReplyReader::Result::more) break;
      if (next == ReplyReader::Result::broken) {
        pass("it does not speak the Redis protocol: " + reader_->error(), now);
        return;
      }
      if (--replies_ > 0 && !reader_->current().isError()) continue;
      take(reader_->current(), now);
      return;
    }
  }
}

void SentinelFinder::take(ReplyCursor reply, Clock::time_point now) {
  if (reply.isError()) {
    const std::string_view error = reply.text();
    pass(error.starts_with("ERR unknown command") ? "it is no sentinel" : describeServerError(error), now);
    return;
  }
  if (!reply.isArray()) {
    pass("it does not know this name", now);
    return;
  }
  reply.array();
  ServerPlace place;
  place.host = reply.text();
  const std::string_view port = reply.text();
  const auto [end, code] = std::from_chars(port.data(), port.data() + port.size(), place.port);
  if (!isHost(place.host) || code != std::errc{} || end != port.data() + port.size() || place.port < 1 ||
      place.port > 65535) {
    pass("its answer is no address", now);
    return;
  }
  first_ = (first_ + asked_) % address_.places.size();
  close();
  master_ = place;
  state_ = State::done;
}

pollfd SentinelFinder::wanted() const {
  if (state_ == State::dialing) return dialer_.wanted();
  if (state_ != State::asking) return {-1, 0, 0};
  const auto events =
      static_cast<short>(stream_->readEvents() | (output_.empty() ? 0 : stream_->writeEvents()));
  return {stream_->descriptor(), events, 0};
}

}  // namespace pvss::redis
