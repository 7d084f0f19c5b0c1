// CPU time of this process per batch through a real Redis: formatting, sending, the confirmation, and the
// change read back from the log. The loop is the gateway's: write what is due, poll for at most a
// millisecond. The last line is what such a poll costs when nothing happens, which is mostly the machine's
// price of sleeping and waking.
#include <sys/resource.h>

#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "pvss/FloatVar.h"
#include "pvss/StoreAdmin.h"
#include "store/redis/RedisStore.h"

namespace {

using Clock = std::chrono::steady_clock;

double cpuSeconds() {
  rusage usage{};
  ::getrusage(RUSAGE_SELF, &usage);
  const auto seconds = [](const timeval& t) {
    return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_usec) * 1e-6;
  };
  return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

class Counter final : public pvss::StoreListener, public pvss::ElementDirectory {
 public:
  void storeUp(const pvss::StoreGreeting&) override { up = true; }
  void storeDown(std::string_view) override { up = false; }
  void catalogueLoaded(std::vector<pvss::CatalogueEntry> entries) override {
    for (const auto& entry : entries) intern(entry.name);
  }
  void catalogueChanged(pvss::CatalogueEntry) override {}
  void changed(const pvss::Change& change) override { changes += change.elements.size(); }
  void snapshot(std::uint64_t, std::uint64_t, std::vector<pvss::ElementState>) override {}
  void confirmed(std::uint64_t, pvss::WriteOutcome, std::string_view,
                 const std::vector<std::uint32_t>&) override {
    ++confirmations;
  }
  void lease(bool, std::string_view) override {}
  void gap(std::string_view) override {}
  void caughtUp() override {}
  pvss::ElementId intern(std::string_view name) override {
    const auto [at, fresh] = ids_.try_emplace(std::string(name), static_cast<pvss::ElementId>(names_.size()));
    if (fresh) names_.emplace_back(name);
    return at->second;
  }
  [[nodiscard]] const std::string& nameOf(pvss::ElementId element) const override { return names_[element]; }
  [[nodiscard]] DpElementType typeOf(pvss::ElementId) const override { return DPELEMENT_FLOAT; }

  bool up = false;
  std::uint64_t changes = 0;
  std::uint64_t confirmations = 0;

 private:
  std::map<std::string, pvss::ElementId, std::less<>> ids_;
  std::vector<std::string> names_{""};
};

struct Figure {
  double microseconds = 0;  // of CPU per batch
  double rate = 0;          // batches per second
};

/// `perSecond` 0: as fast as the window opens.
Figure measureStore(pvss::redis::RedisStore& store, Counter& counter, std::uint64_t& sequence,
                    std::uint64_t batches, double perSecond, std::size_t elements) {
  pvss::WriteBatch batch;
  for (std::size_t i = 0; i < elements; ++i) {
    pvss::ElementAttributes attributes;
    attributes.element = counter.intern("Bench0.field" + std::to_string(i));
    attributes.mask =
        pvss::attributeValue | pvss::attributeInvalid | pvss::attributeUserBit1 | pvss::attributeUserBit2;
    attributes.invalid = false;
    attributes.value = std::make_shared<FloatVar>(3.25);
    batch.elements.push_back(attributes);
  }
  const std::uint64_t confirmedGoal = counter.confirmations + batches;
  const std::uint64_t changesGoal = counter.changes + batches * elements;
  const double cpu = cpuSeconds();
  const Clock::time_point begin = Clock::now();
  std::uint64_t sent = 0;
  while (counter.confirmations < confirmedGoal || counter.changes < changesGoal) {
    const double passed = std::chrono::duration<double>(Clock::now() - begin).count();
    const std::uint64_t due =
        perSecond == 0 ? batches : std::min(batches, static_cast<std::uint64_t>(passed * perSecond) + 1);
    while (sent < due) {
      batch.clientSequence = sequence + 1;
      batch.timeMs = 1700000000000 + static_cast<std::int64_t>(sequence);
      if (!store.write(batch)) break;
      ++sequence;
      ++sent;
    }
    store.poll(std::chrono::milliseconds(1));
  }
  const double seconds = std::chrono::duration<double>(Clock::now() - begin).count();
  return {(cpuSeconds() - cpu) / static_cast<double>(batches) * 1e6, static_cast<double>(batches) / seconds};
}

double idlePolls(pvss::redis::RedisStore& store) {
  const double cpu = cpuSeconds();
  constexpr int polls = 3000;
  for (int i = 0; i < polls; ++i) store.poll(std::chrono::milliseconds(1));
  return (cpuSeconds() - cpu) / polls * 1e6;
}

}  // namespace

int main(int count, char** words) {
  if (count < 2) {
    static_cast<void>(std::fprintf(
        stderr, "usage: bench_store ADDRESS    of an empty store, redis+unix:///path for example\n"));
    return 2;
  }
  const std::string address = words[1];
  pvss::StoreAdmin admin(address);
  admin.installFunctions();
  std::vector<pvss::StoreElement> elements(20);
  for (std::size_t i = 0; i < elements.size(); ++i) {
    elements[i].name = "Bench0.field" + std::to_string(i);
    elements[i].type = DPELEMENT_FLOAT;
  }
  admin.putElements(elements);

  std::string error;
  pvss::redis::RedisStore store(*pvss::redis::parseStoreAddress(address, error));
  Counter counter;
  pvss::ManagerIdentity identity;
  identity.number = 1;
  identity.kind = "bench";
  identity.writer = "1.bench";
  store.start(counter, counter, identity);
  while (!counter.up) store.poll(std::chrono::milliseconds(10));

  std::uint64_t sequence = 0;
  measureStore(store, counter, sequence, 20000, 0, 1);
  const auto show = [](const char* what, const Figure& figure) {
    static_cast<void>(std::fprintf(stderr, "%-42s %6.2f us CPU per batch, %8.0f batches/s\n", what,
                                   figure.microseconds, figure.rate));
  };
  const Figure flood = measureStore(store, counter, sequence, 200000, 0, 1);
  show("1 element, as fast as the window opens", flood);
  const Figure paced = measureStore(store, counter, sequence, 50000, 10000, 1);
  show("1 element, 10,000 a second", paced);
  show("1 element, 40,000 a second", measureStore(store, counter, sequence, 100000, 40000, 1));
  show("20 elements, as fast as the window opens", measureStore(store, counter, sequence, 40000, 0, 20));
  show("20 elements, 5,000 a second", measureStore(store, counter, sequence, 20000, 5000, 20));
  const double idle = idlePolls(store);
  static_cast<void>(std::fprintf(stderr, "%-42s %6.2f us CPU per poll of 1 ms\n", "idle", idle));
  static_cast<void>(
      std::printf("{\"flood\": %.3f, \"paced\": %.3f, \"idlePoll\": %.3f, \"batchesPerSecond\": %.0f}\n",
                  flood.microseconds, paced.microseconds, idle, flood.rate));
  return 0;
}
