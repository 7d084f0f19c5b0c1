// A publisher for the fault scenarios: a steady number of records a second over several busy publications,
// some that are quiet, of all types or large, every record with a running number, and an account of what was
// sent that survives its own death.
//
// usage: load_publisher NAME ACCOUNT LIFE PUBLICATIONS PER_SECOND
// Publications are load/0, load/1, ...; the first PUBLICATIONS are busy. What is behind them, and what stands
// in which field under a number, is agreed upon with traffic.py. A number is LIFE * 100,000,000 + the
// publication's own count from 1; its source time is as many milliseconds after a round moment.
// ACCOUNT is a file of 64-bit numbers, mapped into memory: the count of each publication's records, the one
// that is just being handed to send() included. First line of output: its incarnation. Standard input: "stop"
// and "go" for sending, "hush" for the end of what falls silent in a fault, "counters" for a line of JSON,
// end for the end.
#include <fcntl.h>
#include <kel/Kel.h>
#include <sys/mman.h>
#include <unistd.h>

#include <array>
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
constexpr std::size_t largeText = 50'000;
constexpr int largeInts = 5'000;
constexpr int forever = -1;
constexpr int afterTheHush = 10;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

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

void fillPlain(KelData& data, int number) {
  for (const char* tag : {"n", "a", "b", "m"}) data.insert(number, tag);
}

void fillTyped(KelData& data, int number) {
  const std::array near = {number, number + 1, number + 2};
  data.insert(number, "n");
  data.insert(number % 2 == 1, "bit");
  data.insert(static_cast<unsigned char>(number % 256), "byte");
  data.insert(static_cast<short>(number % 30'000), "short");
  data.insert(static_cast<long>(number), "long");
  data.insert(static_cast<float>(number % 100'000) + 0.5F, "float");
  data.insert(number + 0.25, "double");
  data.insert(("Größe " + std::to_string(number)).c_str(), "text");
  std::array<bool, 3> bits{};
  std::array<unsigned char, 3> bytes{};
  std::array<short, 3> shorts{};
  std::array<int, 3> ints{};
  std::array<long, 3> longs{};
  std::array<float, 3> floats{};
  std::array<double, 3> doubles{};
  for (std::size_t i = 0; i < near.size(); ++i) {
    const int one = near.at(i);
    bits.at(i) = one % 2 == 1;
    bytes.at(i) = static_cast<unsigned char>(one % 256);
    shorts.at(i) = static_cast<short>(-(one % 30'000));
    ints.at(i) = -one;
    longs.at(i) = one;
    floats.at(i) = static_cast<float>(one % 100'000) + 0.5F;
    doubles.at(i) = -(one + 0.25);
  }
  data.insert(bits.data(), 3, "bits");
  data.insert(bytes.data(), 3, "bytes");
  data.insert(shorts.data(), 3, "shorts");
  data.insert(ints.data(), 3, "ints");
  data.insert(longs.data(), 3, "longs");
  data.insert(floats.data(), 3, "floats");
  data.insert(doubles.data(), 3, "doubles");
  const std::array<std::string, 3> texts = {"", "ä, " + std::to_string(number), "7:x"};
  data.insert(texts.data(), 3, "texts");
}

void fillLarge(KelData& data, int number) {
  const std::string word = std::to_string(number) + " ";
  std::string text;
  while (text.size() < largeText) text += word;
  text.resize(largeText);
  std::vector<int> ints(largeInts);
  for (int i = 0; i < largeInts; ++i) ints[static_cast<std::size_t>(i)] = number + i;
  data.insert(number, "n");
  data.insert(text.c_str(), "text");
  data.insert(ints.data(), largeInts, "ints");
}

/// One publication that is not busy: how often it sends, and how many records are still to come.
struct Quiet {
  void (*fill)(KelData&, int);
  milliseconds pause;
  int left;
  bool falls;  ///< silent after the hush
};

const std::array<Quiet, 7> quiet = {{{fillPlain, milliseconds(0), 1, false},
                                     {fillPlain, milliseconds(0), 1, false},
                                     {fillPlain, milliseconds(100), 5, false},
                                     {fillPlain, milliseconds(20), forever, true},
                                     {fillPlain, milliseconds(20), forever, true},
                                     {fillTyped, milliseconds(200), forever, false},
                                     {fillLarge, milliseconds(3000), forever, false}}};

struct Orders {
  std::atomic<bool> sending = true;
  std::atomic<bool> hushed = false;
  std::atomic<bool> ended = false;
};

void print(const KelCounters& counters) {
  std::cout << "{\"sends\": " << counters.sends << ", \"acknowledged\": " << counters.acknowledged
            << ", \"superseded\": " << counters.outgoingSuperseded << ", \"refused\": " << counters.refused
            << ", \"pending\": " << counters.outgoingPending << ", \"reconnects\": " << counters.reconnects
            << "}" << std::endl;
}

/// Follows standard input until it ends.
void obey(const KelFactory& factory, Orders& orders) {
  for (std::string line; std::getline(std::cin, line);) {
    if (line == "counters") {
      print(factory.counters());
    } else if (line == "hush") {
      orders.hushed = true;
    } else {
      orders.sending = line == "go";
    }
  }
  orders.ended = true;
}

/// Everything that is sent, with its numbers.
class Load {
 public:
  Load(KelFactory& kel, Account& counts, int firstNumber, std::size_t busyOnes)
      : factory(kel), account(counts), base(firstNumber), busy(busyOnes), sent(busyOnes + quiet.size(), 0) {
    for (std::size_t i = 0; i < sent.size(); ++i) {
      publications.push_back(factory.createPublication(("load/" + std::to_string(i)).c_str(), &handler));
    }
    for (const Quiet& one : quiet) {
      left.push_back(one.left);
      due.push_back(Clock::now());
    }
  }

  void sendBusy(std::size_t publication) { send(publication, fillPlain); }

  void sendQuiet(bool hushed) {
    const auto now = Clock::now();
    for (std::size_t i = 0; i < quiet.size(); ++i) {
      const Quiet& one = quiet.at(i);
      if (hushed && one.falls && left[i] == forever) left[i] = afterTheHush;
      if (left[i] == 0 || now < due[i]) continue;
      if (left[i] > 0) --left[i];
      due[i] = now + one.pause;
      send(busy + i, one.fill);
    }
  }

  void end() {
    factory.flush(std::chrono::seconds(5));
    for (KelPublication* const publication : publications) factory.destroyPublication(publication);
  }

 private:
  void send(std::size_t publication, void (*fill)(KelData&, int)) {
    const int number = base + ++sent[publication];
    KelData data;
    fill(data, number);
    KelTimestamp time;
    time.timeNanoseconds = startNanoseconds + std::int64_t{number} * 1'000'000;
    account.set(publication, static_cast<std::uint64_t>(sent[publication]));
    publications[publication]->send(data, time);
  }

  KelFactory& factory;
  Account& account;
  int base;
  std::size_t busy;
  Handler handler;
  std::vector<KelPublication*> publications;
  std::vector<int> sent, left;
  std::vector<Clock::time_point> due;
};

int run(char** arguments) {
  const int base = static_cast<int>(std::strtol(arguments[3], nullptr, 10)) * numbersOfALife;
  const std::size_t count = std::strtoull(arguments[4], nullptr, 10);
  const auto perSecond = std::strtoll(arguments[5], nullptr, 10);
  Account account(arguments[2], count + quiet.size());
  const std::unique_ptr<KelFactory> factory(Kel::create(arguments[1]));
  std::cout << factory->incarnation() << std::endl;
  Load load(*factory, account, base, count);
  Orders orders;
  std::thread obeying([&] { obey(*factory, orders); });

  const auto pause = std::chrono::nanoseconds(1'000'000'000 / perSecond);
  auto due = Clock::now();
  for (std::size_t next = 0; !orders.ended; next = (next + 1) % count) {
    // What a pause or a busy machine has held up is not made up for: the rate is the most that is ever sent.
    due = std::max(due + pause, Clock::now() - milliseconds(50));
    std::this_thread::sleep_until(due);
    if (!orders.sending) {
      std::this_thread::sleep_for(milliseconds(5));
      continue;
    }
    load.sendBusy(next);
    load.sendQuiet(orders.hushed);
  }
  obeying.join();
  load.end();
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
