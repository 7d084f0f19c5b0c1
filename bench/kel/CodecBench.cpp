// What a field costs on its way through the Kel library: insert, encode, decode, look up.
//
// items_per_second counts fields.
#include <benchmark/benchmark.h>
#include <kel/KelData.h>

#include <string>
#include <vector>

#include "data/RecordAccess.h"
#include "wire/RecordCodec.h"

namespace {

std::vector<std::string> tagsOf(std::int64_t fields) {
  std::vector<std::string> tags;
  for (std::int64_t i = 0; i < fields; ++i) tags.push_back("boiler.temperature" + std::to_string(i));
  return tags;
}

/// Every fourth field a float, int, boolean, text: what a plant publishes.
void fill(KelData& data, const std::vector<std::string>& tags, int round) {
  for (std::size_t i = 0; i < tags.size(); ++i) {
    const char* tag = tags[i].c_str();
    switch (i % 4) {
      case 0:
        data.insert(static_cast<float>(round) * 0.5F, tag);
        break;
      case 1:
        data.insert(round, tag);
        break;
      case 2:
        data.insert(round % 2 == 0, tag);
        break;
      default:
        data.insert("running", tag);
        break;
    }
  }
}

double readAll(const KelData& data, const std::vector<std::string>& tags) {
  double sum = 0;
  for (std::size_t i = 0; i < tags.size(); ++i) {
    const char* tag = tags[i].c_str();
    switch (i % 4) {
      case 0:
        sum += static_cast<double>(data.extractFloat(tag));
        break;
      case 1:
        sum += data.extractInt(tag);
        break;
      case 2:
        sum += data.extractBool(tag) ? 1 : 0;
        break;
      default:
        sum += *data.extractCString(tag);
        break;
    }
  }
  return sum;
}

std::string payloadOf(const KelData& data) {
  std::string bytes =
      kel::encodeRecord(kel::RecordAccess::record(data), {1, KelTimestamp(1), "gateway/0123456789abcdef", {}})
          .bytes;
  kel::appendSequence(bytes, 123'456);
  return bytes;
}

void countFields(benchmark::State& state) {
  state.SetItemsProcessed(state.iterations() * state.range(0));
}

void insertFields(benchmark::State& state) {
  const auto tags = tagsOf(state.range(0));
  KelData data;
  int round = 0;
  for (auto unused : state) fill(data, tags, ++round);
  countFields(state);
}

void encodeFields(benchmark::State& state) {
  KelData data;
  fill(data, tagsOf(state.range(0)), 7);
  for (auto unused : state) benchmark::DoNotOptimize(payloadOf(data));
  countFields(state);
}

void decodeFields(benchmark::State& state) {
  KelData data;
  fill(data, tagsOf(state.range(0)), 7);
  const std::string payload = payloadOf(data);
  for (auto unused : state) benchmark::DoNotOptimize(kel::decodeRecord(payload));
  countFields(state);
}

void extractFields(benchmark::State& state) {
  const auto tags = tagsOf(state.range(0));
  KelData data;
  fill(data, tags, 7);
  const KelData received = kel::RecordAccess::fromRecord(kel::decodeRecord(payloadOf(data)).record);
  for (auto unused : state) benchmark::DoNotOptimize(readAll(received, tags));
  countFields(state);
}

void wholeWay(benchmark::State& state) {
  const auto tags = tagsOf(state.range(0));
  KelData data;
  int round = 0;
  for (auto unused : state) {
    fill(data, tags, ++round);
    const KelData received = kel::RecordAccess::fromRecord(kel::decodeRecord(payloadOf(data)).record);
    benchmark::DoNotOptimize(readAll(received, tags));
  }
  countFields(state);
}

BENCHMARK(insertFields)->Arg(1)->Arg(20)->Arg(200);
BENCHMARK(encodeFields)->Arg(1)->Arg(20)->Arg(200);
BENCHMARK(decodeFields)->Arg(1)->Arg(20)->Arg(200);
BENCHMARK(extractFields)->Arg(1)->Arg(20)->Arg(200);
BENCHMARK(wholeWay)->Arg(1)->Arg(20)->Arg(200);

}  // namespace
