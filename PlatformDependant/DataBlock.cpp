#include "DataBlock.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <utility>

namespace {

constexpr std::uint64_t growthSlack = 64;

}  // namespace

DataBlock::DataBlock(unsigned int byteSize)
    : dataHolder(std::make_unique<char[]>(byteSize)),
      dataHolderByteSize(byteSize),
      currentOffset(0),
      numBytesStored(0) {}

DataBlock::DataBlock(const char* data, unsigned int byteCount)
    : dataHolder(std::make_unique<char[]>(byteCount)),
      dataHolderByteSize(byteCount),
      currentOffset(byteCount),
      numBytesStored(byteCount) {
  if (byteCount != 0) {
    std::memcpy(dataHolder.get(), data, byteCount);
  }
}

DataBlock::~DataBlock() = default;

void DataBlock::write(const char* data, unsigned int byteCount) {
  write(data, byteCount, currentOffset);
}

void DataBlock::write(const char* data, unsigned int byteCount, unsigned int offset) {
  if (offset > numBytesStored) {
    std::array<char, 128> text{};
    std::snprintf(text.data(), text.size(), "DataBlock::write() Offset(%d) larger then eof data (%d)",
                  static_cast<int>(offset), static_cast<int>(numBytesStored));
    throw std::runtime_error(text.data());
  }
  if (byteCount == 0) {
    return;
  }
  const std::uint64_t end = std::uint64_t{offset} + byteCount;
  if (!std::in_range<unsigned int>(end + growthSlack)) {
    throw std::length_error("DataBlock::write() would pass the largest size");
  }
  std::unique_ptr<char[]> outgrown;  // kept until the copy is made: the data may come from this very block
  if (end > dataHolderByteSize) {
    const auto capacity = static_cast<unsigned int>(end + growthSlack);
    auto grown = std::make_unique<char[]>(capacity);
    std::memcpy(grown.get(), dataHolder.get(), dataHolderByteSize);
    outgrown = std::exchange(dataHolder, std::move(grown));
    dataHolderByteSize = capacity;
  }
  std::memmove(dataHolder.get() + offset, data, byteCount);
  currentOffset = offset + byteCount;
  numBytesStored = std::max(numBytesStored, currentOffset);
}
