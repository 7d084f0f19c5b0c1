// bench_bare: the yardstick of the end-to-end figures, an MQTT subscriber that only counts.
//
// usage: bench_bare HOST PORT FILTER
//
// libmosquitto used in the plainest way that it offers: its own loop, QoS 1, MQTT 5. Ends on SIGTERM or
// SIGINT and prints one JSON line: messages, bytes, and the CPU time from the first message on.
#include <mosquitto.h>
#include <mqtt_protocol.h>
#include <sys/resource.h>

#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

struct Count {
  std::string filter;
  unsigned long long messages = 0;
  unsigned long long bytes = 0;
  double cpuBefore = 0;
};

std::atomic<bool> stopped{false};

double cpuSeconds() {
  rusage usage = {};
  getrusage(RUSAGE_SELF, &usage);
  const auto seconds = [](const timeval& time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
  };
  return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

void onConnect(mosquitto* handle, void* self, int reason, int /*flags*/,
               const mosquitto_property* /*properties*/) {
  if (reason != 0) {
    static_cast<void>(std::fprintf(stderr, "bench_bare: refused: %s\n", mosquitto_reason_string(reason)));
    std::exit(3);
  }
  mosquitto_subscribe_v5(handle, nullptr, static_cast<Count*>(self)->filter.c_str(), 1, 0, nullptr);
}

void onMessage(mosquitto* /*handle*/, void* self, const mosquitto_message* message,
               const mosquitto_property* /*properties*/) {
  auto& count = *static_cast<Count*>(self);
  if (count.messages == 0) count.cpuBefore = cpuSeconds();
  ++count.messages;
  count.bytes += static_cast<unsigned long long>(message->payloadlen);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) {
    static_cast<void>(std::fprintf(stderr, "usage: bench_bare HOST PORT FILTER\n"));
    return 2;
  }
  static_cast<void>(std::signal(SIGTERM, [](int) { stopped = true; }));
  static_cast<void>(std::signal(SIGINT, [](int) { stopped = true; }));
  Count count;
  count.filter = argv[3];
  mosquitto_lib_init();
  mosquitto* const handle = mosquitto_new(nullptr, true, &count);
  mosquitto_int_option(handle, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V5);
  mosquitto_int_option(handle, MOSQ_OPT_TCP_NODELAY, 1);
  mosquitto_int_option(handle, MOSQ_OPT_RECEIVE_MAXIMUM, 200);
  mosquitto_connect_v5_callback_set(handle, onConnect);
  mosquitto_message_v5_callback_set(handle, onMessage);
  int code = mosquitto_connect(handle, argv[1], static_cast<int>(std::strtol(argv[2], nullptr, 10)), 60);
  while (code == MOSQ_ERR_SUCCESS && !stopped) code = mosquitto_loop(handle, 1000, 1);
  if (code != MOSQ_ERR_SUCCESS && !stopped) {
    static_cast<void>(std::fprintf(stderr, "bench_bare: %s\n", mosquitto_strerror(code)));
    return 3;
  }
  const double spent = count.messages == 0 ? 0 : cpuSeconds() - count.cpuBefore;
  static_cast<void>(std::printf(
      "{\"messages\": %llu, \"bytes\": %llu, \"cpuSeconds\": %.6f, \"microsecondsPerMessage\": %.3f}\n",
      count.messages, count.bytes, spent,
      count.messages == 0 ? 0 : spent * 1e6 / static_cast<double>(count.messages)));
  mosquitto_destroy(handle);
  mosquitto_lib_cleanup();
  return 0;
}
