// What one value costs on its way through the manager, and what an idle turn costs.
#include <benchmark/benchmark.h>

#include <memory>
#include <string>
#include <vector>

#include "pvss/BitVar.h"
#include "pvss/FloatVar.h"
#include "pvss/HotLinkWaitForAnswer.h"
#include "pvss/Manager.h"
#include "pvss/testing/MemoryPlant.h"

namespace {

struct Counting : HotLinkWaitForAnswer {
  using HotLinkWaitForAnswer::hotLinkCallBack;
  void callBack(DpMsgAnswer& /*answer*/) override { ++answers; }
  void hotLinkCallBack(DpHLGroup& group) override { items += group.getNumberOfItems(); }
  std::uint64_t answers = 0;
  std::uint64_t items = 0;
};

class Bench {
 public:
  explicit Bench(int elements) : manager_(ManagerIdentifier(0, API_MAN, 1)) {
    plant_.setRecording(false);
    for (int index = 0; index < elements; ++index) {
      names_.push_back("Bench.e" + std::to_string(index));
      plant_.addElement(names_.back(), DPELEMENT_FLOAT);
    }
    manager_.connectToData(3, nullptr, 0);
    dispatch();
  }

  static void dispatch() {
    long sec = 0;
    long usec = 0;
    Manager::dispatch(sec, usec);
  }
  [[nodiscard]] DpIdentifier id(int element, const char* attribute) const {
    DpIdentifier found;
    Manager::getId((names_[static_cast<std::size_t>(element)] + attribute).c_str(), found);
    return found;
  }
  /// Value, both bits and flag of so many elements, in the order in which a received record writes them.
  struct Ids {
    std::vector<DpIdentifier> value, bit1, bit2, flag;
  };
  [[nodiscard]] Ids ids(int first, int count) const {
    Ids ids;
    for (int index = first; index < first + count; ++index) {
      ids.value.push_back(id(index, ":_original.._value"));
      ids.bit1.push_back(id(index, ":_original.._userbit1"));
      ids.bit2.push_back(id(index, ":_original.._userbit2"));
      ids.flag.push_back(id(index, ":_original.._exp_inv"));
    }
    return ids;
  }
  static std::unique_ptr<DpIdValueList> list(const Ids& ids, double number) {
    auto list = std::make_unique<DpIdValueList>();
    for (std::size_t index = 0; index < ids.value.size(); ++index) {
      list->append(ids.value[index], new FloatVar(number));
      list->append(ids.bit1[index], new BitVar(true));
      list->append(ids.bit2[index], new BitVar(true));
    }
    for (const DpIdentifier& id : ids.flag) {
      list->append(id, new BitVar(false));
    }
    return list;
  }

 private:
  pvss::testing::MemoryPlant plant_;
  Manager manager_;
  std::vector<std::string> names_;
};

// A record of 20 fields: made, written, applied, confirmed, freed. Items are values.
void writeRecords(benchmark::State& state) {
  const int fields = static_cast<int>(state.range(0));
  const int publications = static_cast<int>(state.range(1));
  const Bench bench(fields * publications);
  std::vector<Bench::Ids> ids;
  ids.reserve(static_cast<std::size_t>(publications));
  for (int index = 0; index < publications; ++index) {
    ids.push_back(bench.ids(index * fields, fields));
  }
  double number = 0;
  std::size_t at = 0;
  for (auto _ : state) {
    const auto list = Bench::list(ids[at], number);
    Manager::dpSetTimed(TimeVar(PVSSTime(1, 0)), *list, Manager::eventId, nullptr, 1);
    number += 1;
    at = at + 1 < ids.size() ? at + 1 : 0;
    if (at % 16 == 0) {
      Bench::dispatch();
    }
  }
  Bench::dispatch();
  if (Manager::getCounters().confirmed != static_cast<std::uint64_t>(state.iterations() * fields * 4)) {
    state.SkipWithError("not every write was applied and confirmed");
  }
  state.SetItemsProcessed(state.iterations() * fields);
}
BENCHMARK(writeRecords)->Args({20, 1})->Args({20, 500})->Args({1, 500});

// The same without the manager: what making and freeing the list costs.
void makeLists(benchmark::State& state) {
  const int fields = static_cast<int>(state.range(0));
  const Bench bench(fields);
  const Bench::Ids ids = bench.ids(0, fields);
  double number = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(Bench::list(ids, number));
    number += 1;
  }
  state.SetItemsProcessed(state.iterations() * fields);
}
BENCHMARK(makeLists)->Arg(20);

// One DPE of a buffered group: a write and its hot-link of value, time and flag. Items are hot-links.
void hotLinks(benchmark::State& state) {
  const Bench bench(1);
  Counting listener;
  Manager::dpConnect(
      DpIdentList{bench.id(0, ""), bench.id(0, ":_online.._stime"), bench.id(0, ":_online.._invalid")},
      Manager::eventId, &listener, 0);
  Bench::dispatch();
  const DpIdentifier value = bench.id(0, ":_original.._value");
  double number = 0;
  for (auto _ : state) {
    DpIdValueList list;
    list.append(value, new FloatVar(number));
    Manager::dpSetTimed(TimeVar(PVSSTime(1, 0)), list, Manager::eventId, nullptr, 1);
    number += 1;
    Bench::dispatch();
  }
  for (int round = 0; round < 1000; ++round) {
    Bench::dispatch();
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(listener.items / 3));
}
BENCHMARK(hotLinks);

// A turn of the main loop with nothing to do and no time to wait.
void idleDispatch(benchmark::State& state) {
  const Bench bench(10);
  for (auto _ : state) {
    Bench::dispatch();
  }
}
BENCHMARK(idleDispatch);

// A read of an address attribute, waited for as at the start of the gateway.
void addressRead(benchmark::State& state) {
  const Bench bench(10000);
  int element = 0;
  for (auto _ : state) {
    Counting answer;
    const DpIdentList ids{bench.id(element, ":_address.._drv_ident"),
                          bench.id(element, ":_address.._reference")};
    Manager::dpGet(ids, Manager::eventId, &answer, 0);
    while (answer.answers == 0) {
      Bench::dispatch();
    }
    element = element < 9999 ? element + 1 : 0;
  }
}
BENCHMARK(addressRead);

}  // namespace
