// docs/wire-format.md is true: its table and its example are what the codec writes and reads.

#include <gtest/gtest.h>
#include <kel/KelData.h>

#include <fstream>
#include <map>
#include <regex>
#include <sstream>

#include "Hex.h"
#include "data/RecordAccess.h"
#include "wire/RecordCodec.h"

namespace kel {
namespace {

std::vector<std::string> pageLines() {
  std::ifstream page(KEL_WIRE_FORMAT_PAGE);
  std::vector<std::string> lines;
  for (std::string line; std::getline(page, line);) lines.push_back(line);
  return lines;
}

/// The pairs of hex digits at the beginning of a line.
std::string leadingHex(const std::string& line) {
  std::istringstream words(line);
  std::string digits;
  for (std::string word;
       words >> word && word.size() == 2 && std::isxdigit(word[0]) != 0 && std::isxdigit(word[1]) != 0;) {
    digits += word;
  }
  return digits;
}

std::map<int, KelData> examples() {
  std::map<int, KelData> data;
  const bool booleans[] = {true, false, true};
  const unsigned char bytes[] = {1, 255};
  const short shorts[] = {1, -1};
  const int ints[] = {1, -1};
  const std::int64_t longs[] = {300};
  const float floats[] = {1.5F};
  const double doubles[] = {1.5};
  const char* const texts[] = {"a", "", "bc"};
  data[1].insert(true, "x");
  data[2].insert(static_cast<unsigned char>(255), "x");
  data[3].insert(static_cast<short>(-1), "x");
  data[4].insert(-1, "x");
  data[5].insert(std::int64_t{300}, "x");
  data[6].insert(1.5F, "x");
  data[7].insert(1.5, "x");
  data[8].insert("hi", "x");
  data[10].insert(booleans, 3, "x");
  data[20].insert(bytes, 2, "x");
  data[30].insert(shorts, 2, "x");
  data[40].insert(ints, 2, "x");
  data[50].insert(longs, 1, "x");
  data[60].insert(floats, 1, "x");
  data[70].insert(doubles, 1, "x");
  data[80].insert(texts, 3, "x");
  return data;
}

TEST(WireFormatPage, ShowsTheMetricOfEveryType) {
  const std::regex row(R"(^\| (\d+) \| ([a-z ]+) \| (\d+) .*\| `([0-9a-f ]+)` \|$)");
  std::map<int, KelData> wanted = examples();
  std::size_t rows = 0;
  for (const std::string& line : pageLines()) {
    std::smatch match;
    if (!std::regex_match(line, match, row)) continue;
    const int type = std::stoi(match[1]);
    ASSERT_TRUE(wanted.contains(type)) << line;
    const KelData& data = wanted.at(type);
    EXPECT_EQ(data.getValueType("x"), type);
    EXPECT_EQ(match[2], typeName(type));
    const EncodedRecord encoded = encodeRecord(RecordAccess::record(data), {});
    EXPECT_EQ(testing::hex(encoded.fields()), testing::hex(testing::unhex(match[4].str()))) << line;
    // Metric key and length, name key and text, datatype key: the datatype is the seventh byte.
    EXPECT_EQ(std::stoi(match[3]), encoded.fields().at(6)) << line;
    ++rows;
  }
  EXPECT_EQ(rows, wanted.size());
}

TEST(WireFormatPage, ShowsAWholeRecord) {
  std::string shown;
  bool inside = false;
  for (const std::string& line : pageLines()) {
    if (line == "```hexdump") {
      inside = true;
    } else if (line == "```") {
      inside = false;
    } else if (inside) {
      shown += leadingHex(line);
    }
  }
  KelData data;
  data.insert(21.5F, "temperature");
  data.insert(true, "running");
  std::string bytes = encodeRecord(RecordAccess::record(data),
                                   {1, KelTimestamp(1'700'000'000'123'456'789), "gateway/0a1b2c3d", {}})
                          .bytes;
  appendSequence(bytes, 3);
  EXPECT_EQ(shown, testing::hex(bytes));
  const auto pages = pageLines();
  const std::string size = std::to_string(bytes.size()) + " bytes:";
  EXPECT_TRUE(std::any_of(pages.begin(), pages.end(), [&](const auto& line) { return line.ends_with(size); }))
      << size;
  const DecodedRecord decoded = decodeRecord(testing::unhex(shown));
  ASSERT_TRUE(decoded.record) << decoded.error;
  const KelData read = RecordAccess::fromRecord(decoded.record);
  EXPECT_EQ(read.extractFloat("temperature"), 21.5F);
  EXPECT_TRUE(read.extractBool("running"));
  EXPECT_EQ(read.getTimestamp().timeNanoseconds, 1'700'000'000'123'456'789);
  EXPECT_EQ(read.getSequence(), 3);
  EXPECT_STREQ(read.getPublisher(), "gateway/0a1b2c3d");
}

}  // namespace
}  // namespace kel
