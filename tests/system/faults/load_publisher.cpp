// A publisher for the fault scenarios: a steady number of records a second over several publications, every
// record with a running number, and an account of what was sent that survives its own death.
//
// usage: load_publisher NAME ACCOUNT LIFE PUBLICATIONS PER_SECOND
// Publications are load/0, load/1, ...; each has the int fields n, a, b and m, all LIFE * 100,000,000 + the
// publication's own count from 1. The source time of a number is as many milliseconds after a round moment.
// ACCOUNT is a file of 64-bit numbers, mapped into memory: the count of each publication's records, the one
// that is just being handed to send() included. First line of output: its incarnation. Standard input: "stop"
// and "go" for sending, "counters" for a line of JSON, end for the end.
#include <fcntl.h>
#include <kel/Kel.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr std::int64_t startNanoseconds = 1'700'000'000'000'000'000;
constexpr int numbersOfALife = 100'000'000;
using Clock = std::chrono::steady_clock;

class Handler : public KelPublicationErrorHandler {
 public:
  void handleException(KelPublication* publication, KelException& exception) override {
    std::cerr << publication->getTopicName() << ": " << exception.what() << std::endl;
  }
};

/// The counts, in a file that outlives the process.
class Account {
 public:
  Account(const char* path, std::size_t publications) {
    const int file = ::open(path, O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    const std::size_t bytes = publications * sizeof(std::uint64_t);
    if (file < 0 || ::ftruncate(file, static_cast<off_t>(bytes)) != 0) throw std::runtime_error("account");
    void* const memory = ::mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    ::close(file);
    if (memory == MAP_FAILED) throw std::runtime_error("account");
    counts = static_cast<std::atomic<std::uint64_t>*>(memory);
  }
  void set(std::size_t publication, std::uint64_t count) { counts[publication].store(count); }

 private:
  std::atomic<std::uint64_t>* counts = nullptr;
};

void print(const KelCounters& counters) {
  std::cout << "{\"sends\": " << counters.sends << ", \"acknowledged\": " << counters.acknowledged
            << ", \"superseded\": " << counters.outgoingSuperseded << ", \"refused\": " << counters.refused
            << ", \"pending\": " << counters.outgoingPending << ", \"reconnects\": " << counters.reconnects
            << "}" << std::endl;
}

/// Follows standard input until it ends.
void obey(const KelFactory& factory, std::atomic<bool>& sending, std::atomic<bool>& ended) {
  for (std::string line; std::getline(std::cin, line);) {
    if (line == "counters") {
      print(factory.counters());
    } else {
      sending = line == "go";
    }
  }
  ended = true;
}

int run(char** arguments) {
  const int base = static_cast<int>(std::strtol(arguments[3], nullptr, 10)) * numbersOfALife;
  const std::size_t count = std::strtoull(arguments[4], nullptr, 10);
  const auto perSecond = std::strtoll(arguments[5], nullptr, 10);
  Account account(arguments[2], count);
  Handler handler;
  const std::unique_ptr<KelFactory> factory(Kel::create(arguments[1]));
  std::cout << factory->incarnation() << std::endl;
  std::vector<KelPublication*> publications;
  std::vector<int> sent(count, 0);
  for (std::size_t i = 0; i < count; ++i) {
    publications.push_back(factory->createPublication(("load/" + std::to_string(i)).c_str(), &handler));
  }
  const std::unique_ptr<KelData> data(factory->createData());
  std::atomic<bool> sending = true;
  std::atomic<bool> ended = false;
  std::thread obeying([&] { obey(*factory, sending, ended); });

  const auto pause = std::chrono::nanoseconds(1'000'000'000 / perSecond);
  auto due = Clock::now();
  for (std::size_t next = 0; !ended; next = (next + 1) % count) {
    // What a pause or a busy machine has held up is not made up for: the rate is the most that is ever sent.
    due = std::max(due + pause, Clock::now() - std::chrono::milliseconds(50));
    std::this_thread::sleep_until(due);
    if (!sending) {
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
      continue;
    }
    const int number = base + ++sent[next];
    for (const char* tag : {"n", "a", "b", "m"}) data->insert(number, tag);
    KelTimestamp time;
    time.timeNanoseconds = startNanoseconds + std::int64_t{number} * 1'000'000;
    account.set(next, static_cast<std::uint64_t>(sent[next]));
    publications[next]->send(*data, time);
  }
  obeying.join();
  factory->flush(std::chrono::seconds(5));
  for (KelPublication* const publication : publications) factory->destroyPublication(publication);
  return 0;
}

}  // namespace

int main(int count, char** arguments) {
  if (count != 6) {
    std::cerr << "usage: load_publisher NAME ACCOUNT LIFE PUBLICATIONS PER_SECOND\n";
    return 2;
  }
  try {
    return run(arguments);
  } catch (const std::exception& trouble) {
    std::cerr << "load_publisher: " << trouble.what() << ": " << arguments[2] << std::endl;
    return 3;
  }
}
