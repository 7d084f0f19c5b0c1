// interop_kel: our side of the interoperability tests, on the public face of the Kel library alone.
//
// usage: interop_kel publish PUBLICATION       one record with every type, then what standard input says:
//                                              "bad REASON" declares it bad; its end ends the program
//        interop_kel subscribe PUBLICATION     one JSON line for each callback, until standard input ends
// The broker is KEL_URL's. "ready" is printed once the first record, or the subscription, stands.
#include <kel/Kel.h>
#include <kel/KelData.h>
#include <kel/KelException.h>
#include <kel/KelFactory.h>
#include <kel/KelPublication.h>
#include <kel/KelPublicationErrorHandler.h>
#include <kel/KelSubscription.h>
#include <kel/KelSubscriptionListener.h>
#include <kel/KelTimestamp.h>

#include <array>
#include <chrono>
#include <cstdint>
#include <iostream>
#include <limits>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>

namespace {

using nlohmann::json;

// 2026-03-04T05:06:07.089012345Z
constexpr std::int64_t recordTime = 1772600767089012345;

class SaysTrouble : public KelPublicationErrorHandler {
 public:
  void handleException(KelPublication* /*publication*/, KelException& exception) override {
    std::cerr << "interop_kel: " << exception.what() << std::endl;
  }
};

void fill(KelData& data) {
  data.insert(true, "bool");
  data.insert(static_cast<unsigned char>(200), "byte");
  data.insert(static_cast<short>(-12345), "short");
  data.insert(std::numeric_limits<int>::min(), "int");
  data.insert(-9007199254740993L, "long");
  data.insert(1.5F, "float");
  data.insert(-0.1, "double");
  data.insert("grüße \xF0\x9F\x9A\x80", "string");
  data.insert("", "empty string");
  data.insert(42, "_underlined");
  data.insert(7.25, "");
  constexpr std::array<bool, 10> bools{true, false, true, true, false, false, false, true, true, true};
  data.insert(bools.data(), static_cast<int>(bools.size()), "bools");
  constexpr std::array<unsigned char, 3> bytes{0, 127, 255};
  data.insert(bytes.data(), static_cast<int>(bytes.size()), "bytes");
  constexpr std::array<short, 3> shorts{-32768, 0, 32767};
  data.insert(shorts.data(), static_cast<int>(shorts.size()), "shorts");
  constexpr std::array<int, 2> ints{std::numeric_limits<int>::min(), std::numeric_limits<int>::max()};
  data.insert(ints.data(), static_cast<int>(ints.size()), "ints");
  constexpr std::array<long, 2> longs{std::numeric_limits<long>::min(), std::numeric_limits<long>::max()};
  data.insert(longs.data(), static_cast<int>(longs.size()), "longs");
  constexpr std::array<float, 2> floats{0.25F, -1e30F};
  data.insert(floats.data(), static_cast<int>(floats.size()), "floats");
  constexpr std::array<double, 2> doubles{0.1, std::numeric_limits<double>::infinity()};
  data.insert(doubles.data(), static_cast<int>(doubles.size()), "doubles");
  constexpr std::array<const char*, 3> strings{"one", "", "drei ä"};
  data.insert(strings.data(), static_cast<int>(strings.size()), "strings");
  data.insert(ints.data(), 0, "no ints");
}

int publish(KelFactory& factory, const char* name) {
  SaysTrouble trouble;
  KelPublication* const publication = factory.createPublication(name, &trouble);
  KelData data;
  fill(data);
  publication->send(data, KelTimestamp(recordTime));
  const bool stands = factory.flush(std::chrono::seconds(20));
  if (stands) std::cout << "ready" << std::endl;
  for (std::string line; stands && std::getline(std::cin, line);) {
    if (line.starts_with("bad ")) publication->declareBad(line.c_str() + 4);
  }
  factory.destroyPublication(publication);
  return stands ? 0 : 1;
}

template <typename Element>
json list(const Element* elements, int count) {
  json result = json::array();
  for (int i = 0; i < count; ++i) result.push_back(elements[i]);
  return result;
}

// 64-bit numbers as text: the other side is JavaScript.
json value(const KelData& data, const char* tag) {
  int count = 0;
  switch (data.getValueType(tag)) {
    case 1:
      return data.extractBool(tag);
    case 2:
      return data.extractByte(tag);
    case 3:
      return data.extractShort(tag);
    case 4:
      return data.extractInt(tag);
    case 5:
      return std::to_string(data.extractLong(tag));
    case 6:
      return data.extractFloat(tag);
    case 7:
      return data.extractDouble(tag);
    case 8:
      return data.extractCString(tag);
    case 10: {
      const bool* const elements = data.extractBoolArray(count, tag);
      return list(elements, count);
    }
    case 20: {
      const unsigned char* const elements = data.extractByteArray(count, tag);
      return list(elements, count);
    }
    case 30: {
      const short* const elements = data.extractShortArray(count, tag);
      return list(elements, count);
    }
    case 40: {
      const int* const elements = data.extractIntArray(count, tag);
      return list(elements, count);
    }
    case 50: {
      const std::int64_t* const elements = data.extractLongArray(count, tag);
      json result = json::array();
      for (int i = 0; i < count; ++i) result.push_back(std::to_string(elements[i]));
      return result;
    }
    case 60: {
      const float* const elements = data.extractFloatArray(count, tag);
      return list(elements, count);
    }
    case 70: {
      const double* const elements = data.extractDoubleArray(count, tag);
      return list(elements, count);
    }
    case 80: {
      const char* const* const elements = data.extractCStringArray(count, tag);
      return list(elements, count);
    }
    default:
      return nullptr;
  }
}

class Prints : public KelSubscriptionListener {
 public:
  void handleMessage(KelSubscription* /*subscription*/, KelData& data) override {
    json fields = json::object();
    for (std::size_t i = 0; i < data.size(); ++i) {
      const char* const tag = data.fieldName(i);
      fields[tag] = {{"type", data.getValueType(tag)}, {"value", value(data, tag)}};
    }
    say({{"event", "record"},
         {"quality", data.getQuality()},
         {"time", std::to_string(data.getTimestamp().timeNanoseconds)},
         {"reason", data.getReason()},
         {"fields", fields}});
  }
  void disconnected(KelSubscription* /*subscription*/, char* reason) override {
    say({{"event", "disconnected"}, {"reason", reason}});
  }
  void connected(KelSubscription* /*subscription*/) override { say({{"event", "connected"}}); }
  void handleException(KelSubscription* /*subscription*/, KelException& exception) override {
    say({{"event", "exception"}, {"reason", exception.what()}});
  }

 private:
  // One thread of the library calls, and the main thread has said its one line before.
  static void say(const json& line) { std::cout << line.dump() << std::endl; }
};

int subscribe(KelFactory& factory, const char* name) {
  Prints prints;
  std::cout << "ready" << std::endl;
  KelSubscription* const subscription = factory.createSubscription(name, &prints);
  for (std::string line; std::getline(std::cin, line);) {
  }
  factory.releaseSubscription(subscription);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string mode = argc == 3 ? argv[1] : "";
  if (mode != "publish" && mode != "subscribe") {
    std::cerr << "usage: interop_kel publish|subscribe PUBLICATION\n";
    return 2;
  }
  const std::unique_ptr<KelFactory> factory(Kel::create("interop"));
  return mode == "publish" ? publish(*factory, argv[2]) : subscribe(*factory, argv[2]);
}
