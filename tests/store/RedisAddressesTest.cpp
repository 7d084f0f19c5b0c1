// A name with several addresses: one that swallows everything does not hide the others, and costs no more
// than its share of the time.
#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstring>

#include "RedisProbe.h"
#include "store/redis/Dialer.h"
#include "store/redis/Endpoint.h"

namespace {

using storetest::prepare;
using storetest::RedisServer;
using storetest::StoreProbe;
using testing::HasSubstr;

/// An address that takes no connection and never says so.
class Swallower {
 public:
  Swallower(const char* number, int port) : address_(at(number, port)) {
    EXPECT_EQ(::bind(listener_, reinterpret_cast<const sockaddr*>(&address_), sizeof address_), 0);
    EXPECT_EQ(::listen(listener_, 0), 0);
    // With its queue full, the system drops what knocks.
    for (int& knock : knocks_) {
      knock = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
      static_cast<void>(::connect(knock, reinterpret_cast<const sockaddr*>(&address_), sizeof address_));
    }
  }
  ~Swallower() {
    for (const int knock : knocks_) ::close(knock);
    ::close(listener_);
  }
  Swallower(const Swallower&) = delete;
  Swallower& operator=(const Swallower&) = delete;

  static sockaddr_in at(const char* number, int port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<in_port_t>(port));
    ::inet_pton(AF_INET, number, &address.sin_addr);
    return address;
  }

 private:
  const sockaddr_in address_;
  const int listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  std::array<int, 8> knocks_{};
};

/// A name with two addresses, of which the first swallows everything.
class TwoAddresses : public testing::Test {
 protected:
  static constexpr const char* host = "two.addresses";
  using Dialer = pvss::redis::Dialer;
  using Numbers = std::vector<const char*>;

  TwoAddresses() : kept_(pvss::redis::resolveHost()) {
    pvss::redis::resolveHost() = resolve;
    numbers() = {"127.0.0.2", "127.0.0.1"};
    server.start({"--port", port, "--bind", "127.0.0.1"});
  }
  ~TwoAddresses() override { pvss::redis::resolveHost() = kept_; }

  static Numbers& numbers() {
    static Numbers all;
    return all;
  }
  static int resolve(const std::string& wanted, int number, int flags,
                     std::vector<pvss::redis::Endpoint>& out) {
    if (wanted != host || (flags & AI_NUMERICHOST) != 0) return EAI_NONAME;
    for (const char* text : numbers()) {
      const sockaddr_in address = Swallower::at(text, number);
      pvss::redis::Endpoint& endpoint = out.emplace_back();
      std::memcpy(&endpoint.address, &address, sizeof address);
      endpoint.size = sizeof address;
    }
    return 0;
  }
  static pvss::redis::RedisStoreOptions quick() {
    pvss::redis::RedisStoreOptions options;
    options.limits.connect = std::chrono::milliseconds(1000);
    return options;
  }
  [[nodiscard]] pvss::redis::StoreAddress address() const {
    std::string error;
    return pvss::redis::parseStoreAddress("redis://" + std::string(host) + ":" + port, error).value();
  }
  /// Waits for what the system has to say, at this moment of the dialer's clock.
  static void advance(Dialer& dialer, Dialer::State from, Dialer::Clock::time_point now) {
    for (int turn = 0; turn < 2000 && dialer.state() == from; ++turn) {
      pollfd ready = dialer.wanted();
      ::poll(&ready, 1, 10);
      dialer.proceed(now);
    }
  }
  /// The number of the address that is being tried, or was last.
  static std::string tried(const Dialer& dialer) {
    sockaddr_in address{};
    std::memcpy(&address, &dialer.endpoint().address, sizeof address);
    std::array<char, INET_ADDRSTRLEN> text{};
    ::inet_ntop(AF_INET, &address.sin_addr, text.data(), text.size());
    return text.data();
  }

  RedisServer server{RedisServer::Keep::nothing, false};
  const std::string port = RedisServer::freePort();
  const Swallower first{"127.0.0.2", std::stoi(port)};

 private:
  pvss::redis::ResolveHost kept_;
};

TEST_F(TwoAddresses, ShareTheTimeOfOneAttempt) {
  using std::chrono::milliseconds;
  const pvss::redis::StoreAddress named = address();
  Dialer dialer(named, milliseconds(1000), milliseconds(5000));
  const Dialer::Clock::time_point now{};
  dialer.start(named.places.front(), now);
  advance(dialer, Dialer::State::resolving, now);
  dialer.proceed(now + milliseconds(499));
  ASSERT_EQ(dialer.state(), Dialer::State::connecting);
  EXPECT_EQ(tried(dialer), "127.0.0.2");
  dialer.proceed(now + milliseconds(500));
  EXPECT_EQ(tried(dialer), "127.0.0.1") << "half of the time is the second one's";
  advance(dialer, Dialer::State::connecting, now + milliseconds(500));
  EXPECT_EQ(dialer.state(), Dialer::State::done);
}

TEST_F(TwoAddresses, HaveNoMoreTimeThanOneWhenBothSwallowEverything) {
  using std::chrono::milliseconds;
  const Swallower second{"127.0.0.3", std::stoi(port)};
  numbers() = {"127.0.0.2", "127.0.0.3"};
  const pvss::redis::StoreAddress named = address();
  Dialer dialer(named, milliseconds(1000), milliseconds(5000));
  const Dialer::Clock::time_point now{};
  dialer.start(named.places.front(), now);
  advance(dialer, Dialer::State::resolving, now);
  dialer.proceed(now + milliseconds(500));
  dialer.proceed(now + milliseconds(999));
  EXPECT_EQ(dialer.state(), Dialer::State::connecting);
  EXPECT_EQ(tried(dialer), "127.0.0.3");
  dialer.proceed(now + milliseconds(1000));
  EXPECT_EQ(dialer.state(), Dialer::State::failed);
  EXPECT_EQ(dialer.error(), "no answer within 1000 ms");
}

TEST_F(TwoAddresses, TheSecondIsReachedWhenTheFirstSwallowsEverything) {
  prepare(server);
  StoreProbe probe("redis://" + std::string(host) + ":" + port, "7.a", quick());
  EXPECT_TRUE(probe.until([&] { return !probe.greetings.empty(); }, std::chrono::seconds(10)));
}

TEST_F(TwoAddresses, TheSecondOfASentinelIsReachedToo) {
  testing::internal::CaptureStderr();
  StoreProbe probe("redis+sentinel://" + std::string(host) + ":" + port + "/plant", "7.a", quick());
  probe.during(std::chrono::seconds(3));
  const std::string said = testing::internal::GetCapturedStderr();
  EXPECT_THAT(said, HasSubstr("it is no sentinel")) << "an ordinary server was asked";
}

}  // namespace
