// A publisher for the system tests: sends numbered records as fast as they are taken over, then says what
// became of them.
//
// usage: traffic_publisher NAME PUBLICATION RECORDS [FIELDS [PER_SECOND]]
// Field "n" counts from 1; with more FIELDS, "f1", "f2", ... repeat the number. The time of record n is n
// milliseconds after a round moment, so that a reader can tell records by their time too. At the end one line
// of JSON with the library's counters; then it stays alive, so that its records stay good, until its standard
// input ends.
#include <kel/Kel.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <string>
#include <thread>

namespace {

constexpr std::int64_t startNanoseconds = 1'700'000'000'000'000'000;
/// Well below the bound of the outgoing queue: nothing may be superseded.
constexpr std::int64_t mostPending = 5000;

class Handler : public KelPublicationErrorHandler {
 public:
  void handleException(KelPublication* publication, KelException& exception) override {
    std::cerr << publication->getTopicName() << ": " << exception.what() << std::endl;
  }
};

}  // namespace

int main(int count, char** arguments) {
  if (count < 4) {
    std::cerr << "usage: traffic_publisher NAME PUBLICATION RECORDS [FIELDS [PER_SECOND]]\n";
    return 2;
  }
  const long long records = std::strtoll(arguments[3], nullptr, 10);
  const int fields = count > 4 ? static_cast<int>(std::strtol(arguments[4], nullptr, 10)) : 1;
  const long long perSecond = count > 5 ? std::strtoll(arguments[5], nullptr, 10) : 0;

  Handler handler;
  const std::unique_ptr<KelFactory> factory(Kel::create(arguments[1]));
  KelPublication* const publication = factory->createPublication(arguments[2], &handler);
  const std::unique_ptr<KelData> data(factory->createData());
  const auto began = std::chrono::steady_clock::now();
  for (long long number = 1; number <= records; ++number) {
    data->insert(static_cast<int>(number), "n");
    for (int field = 1; field < fields; ++field) {
      data->insert(static_cast<int>(number), ("f" + std::to_string(field)).c_str());
    }
    KelTimestamp time;
    time.timeNanoseconds = startNanoseconds + number * 1'000'000;
    publication->send(*data, time);
    if (perSecond > 0) {
      std::this_thread::sleep_until(began + std::chrono::microseconds(number * 1'000'000 / perSecond));
    }
    while (number % 100 == 0 && factory->counters().outgoingPending > mostPending) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  }
  const bool flushed = factory->flush(std::chrono::minutes(2));
  const std::chrono::duration<double> took = std::chrono::steady_clock::now() - began;
  const KelCounters counters = factory->counters();
  std::cout << "{\"flushed\": " << (flushed ? "true" : "false") << ", \"sends\": " << counters.sends
            << ", \"acknowledged\": " << counters.acknowledged
            << ", \"superseded\": " << counters.outgoingSuperseded << ", \"refused\": " << counters.refused
            << ", \"seconds\": " << took.count() << "}" << std::endl;
  while (std::cin.get() != std::char_traits<char>::eof()) {
  }
  factory->destroyPublication(publication);
  return flushed ? 0 : 1;
}
