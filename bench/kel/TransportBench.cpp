// bench_transport: what the MQTT transport alone costs, without session and records.
//
// usage: bench_transport receive URL FILTER              counts until SIGTERM; CPU of the transport's thread
//        bench_transport send URL TOPIC COUNT RATE SIZE  QoS 1, RATE messages a second (0: as many as taken)
//        bench_transport latency URL COUNT               publish to own receipt, one at a time
// Each prints one JSON line.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "KelUrl.h"
#include "transport/mqtt/MqttTransport.h"

namespace {

using Clock = std::chrono::steady_clock;

std::atomic<bool> stopped{false};

double threadCpuSeconds() {
  timespec time = {};
  static_cast<void>(clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time));
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

class Counting : public kel::TransportListener {
 public:
  explicit Counting(kel::KelTransport& transport, std::string filter)
      : transport_(transport), filter_(std::move(filter)) {}

  void up() override {
    if (filter_.empty() || !transport_.subscribe(filter_, 1, 1)) set(ready_);
  }
  void down(std::string_view reason) override {
    static_cast<void>(
        std::fprintf(stderr, "bench_transport: %.*s\n", static_cast<int>(reason.size()), reason.data()));
  }
  void message(std::string_view /*topic*/, std::string_view payload, bool /*retained*/) override {
    if (messages == 0) cpuBefore = threadCpuSeconds();
    ++messages;
    bytes += payload.size();
    if (waited_) set(arrived_);
  }
  void published(std::uint64_t /*token*/, std::string_view /*failure*/) override { ++acknowledged; }
  void subscribed(std::uint64_t /*token*/, std::string_view failure) override {
    if (!failure.empty()) static_cast<void>(std::fprintf(stderr, "bench_transport: the filter is refused\n"));
    set(ready_);
  }
  void tick(Clock::time_point /*now*/) override { cpuNow = threadCpuSeconds(); }

  void waitReady() { wait(ready_); }
  void waitArrived() { wait(arrived_); }
  void announceArrivals() { waited_ = true; }

  std::uint64_t messages = 0;  // the transport's thread; read after stop()
  std::uint64_t bytes = 0;
  double cpuBefore = 0;
  double cpuNow = 0;
  std::atomic<std::uint64_t> acknowledged{0};

 private:
  void set(bool& flag) {
    {
      const std::lock_guard lock(mutex_);
      flag = true;
    }
    changed_.notify_one();
  }
  void wait(bool& flag) {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [&] { return flag; });
    flag = false;
  }

  kel::KelTransport& transport_;
  const std::string filter_;
  std::atomic<bool> waited_{false};
  std::mutex mutex_;
  std::condition_variable changed_;
  bool ready_ = false;
  bool arrived_ = false;
};

kel::OutgoingMessage messageOf(const std::string& topic, std::size_t size) {
  kel::OutgoingMessage message;
  message.topic = topic;
  message.payload = std::make_shared<const std::string>(size, 'x');
  message.retain = false;
  return message;
}

int receive(kel::KelTransport& transport, const std::string& filter) {
  Counting counting(transport, filter);
  transport.start(counting, {"bench-receive", {}});
  while (!stopped) std::this_thread::sleep_for(std::chrono::milliseconds(20));
  transport.stop(true);
  const double spent = counting.messages == 0 ? 0 : counting.cpuNow - counting.cpuBefore;
  static_cast<void>(
      std::printf("{\"messages\": %llu, \"cpuSeconds\": %.6f, \"microsecondsPerMessage\": %.3f}\n",
                  static_cast<unsigned long long>(counting.messages), spent,
                  counting.messages == 0 ? 0 : spent * 1e6 / static_cast<double>(counting.messages)));
  return 0;
}

int send(kel::KelTransport& transport, const std::string& topic, std::uint64_t count, double rate,
         std::size_t size) {
  Counting counting(transport, {});
  transport.start(counting, {"bench-send", {}});
  counting.waitReady();
  const auto message = messageOf(topic, size);
  const auto start = Clock::now();
  for (std::uint64_t n = 0; n < count && !stopped; ++n) {
    if (rate > 0) {
      std::this_thread::sleep_until(start +
                                    std::chrono::duration_cast<Clock::duration>(
                                        std::chrono::duration<double>(static_cast<double>(n) / rate)));
    }
    while (n - counting.acknowledged > 5000) std::this_thread::sleep_for(std::chrono::microseconds(200));
    if (!transport.publish(message, n)) return 1;
  }
  while (counting.acknowledged < count && !stopped) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
  transport.stop(true);
  static_cast<void>(std::printf(
      "{\"sent\": %llu, \"seconds\": %.3f, \"perSecond\": %.0f, \"microsecondsPerMessage\": %.3f}\n",
      static_cast<unsigned long long>(count), seconds, static_cast<double>(count) / seconds,
      counting.cpuNow * 1e6 / static_cast<double>(count)));
  return 0;
}

int latency(kel::KelTransport& transport, std::uint64_t count) {
  Counting counting(transport, "bench/latency");
  counting.announceArrivals();
  transport.start(counting, {"bench-latency", {}});
  counting.waitReady();
  const auto message = messageOf("bench/latency", 100);
  std::vector<double> micros;
  for (std::uint64_t n = 0; n < count && !stopped; ++n) {
    const auto start = Clock::now();
    if (!transport.publish(message, n)) return 1;
    counting.waitArrived();
    micros.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  transport.stop(true);
  std::sort(micros.begin(), micros.end());
  if (micros.empty()) return 1;
  static_cast<void>(std::printf(
      "{\"messages\": %zu, \"medianMicroseconds\": %.0f, \"p99Microseconds\": %.0f, \"worstMicroseconds\": "
      "%.0f}\n",
      micros.size(), micros[micros.size() / 2], micros[micros.size() * 99 / 100], micros.back()));
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string mode = argc > 1 ? argv[1] : "";
  const bool fits =
      (mode == "receive" && argc == 4) || (mode == "send" && argc == 7) || (mode == "latency" && argc == 4);
  if (!fits) {
    static_cast<void>(std::fprintf(
        stderr,
        "usage: bench_transport receive URL FILTER | send URL TOPIC COUNT RATE SIZE | latency URL COUNT\n"));
    return 2;
  }
  static_cast<void>(std::signal(SIGTERM, [](int) { stopped = true; }));
  static_cast<void>(std::signal(SIGINT, [](int) { stopped = true; }));
  std::string error;
  const auto url = kel::KelUrl::parse(argv[2], error);
  const auto transport = url ? kel::makeMqttTransport(*url, error) : nullptr;
  if (!transport) {
    static_cast<void>(std::fprintf(stderr, "bench_transport: %s\n", error.c_str()));
    return 2;
  }
  if (mode == "receive") return receive(*transport, argv[3]);
  if (mode == "latency") return latency(*transport, std::strtoull(argv[3], nullptr, 10));
  return send(*transport, argv[3], std::strtoull(argv[4], nullptr, 10), std::strtod(argv[5], nullptr),
              std::strtoull(argv[6], nullptr, 10));
}
