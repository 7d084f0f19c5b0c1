#include "data/Record.h"

#include <algorithm>
#include <cstring>
#include <random>

namespace kel {
namespace {

constexpr std::size_t scanLimit = 24;
constexpr std::size_t notFound = static_cast<std::size_t>(-1);

/// Different in every process run, so that nobody outside can choose names that collide.
std::uint64_t hashSeed() {
  static const std::uint64_t seed = [] {
    std::random_device random;
    return (static_cast<std::uint64_t>(random()) << 32U) | random();
  }();
  return seed;
}

std::uint32_t hashOf(std::string_view name) {
  constexpr std::uint64_t multiplier = 0x9E3779B97F4A7C15U;
  static const std::uint64_t seed = hashSeed();
  std::uint64_t hash = seed ^ (name.size() * multiplier);
  const char* at = name.data();
  std::size_t left = name.size();
  std::uint64_t word = 0;
  while (left >= sizeof(word)) {
    std::memcpy(&word, at, sizeof(word));
    hash = (hash ^ word) * multiplier;
    hash ^= hash >> 29U;
    at += sizeof(word);
    left -= sizeof(word);
  }
  if (left > 0) {
    word = 0;
    std::memcpy(&word, at, left);
    hash = (hash ^ word) * multiplier;
    hash ^= hash >> 29U;
  }
  hash *= multiplier;
  return static_cast<std::uint32_t>(hash >> 32U);
}

bool ownsData(const Field& field) {
  return field.type == typeString || field.type >= typeBoolArray;
}

}  // namespace

const char* typeName(int type) {
  switch (type) {
    case typeBool:
      return "boolean";
    case typeByte:
      return "byte";
    case typeShort:
      return "short";
    case typeInt:
      return "int";
    case typeLong:
      return "long";
    case typeFloat:
      return "float";
    case typeDouble:
      return "double";
    case typeString:
      return "string";
    case typeBoolArray:
      return "boolean array";
    case typeByteArray:
      return "byte array";
    case typeShortArray:
      return "short array";
    case typeIntArray:
      return "int array";
    case typeLongArray:
      return "long array";
    case typeFloatArray:
      return "float array";
    case typeDoubleArray:
      return "double array";
    case typeStringArray:
      return "string array";
    default:
      return "nothing";
  }
}

std::size_t elementSize(KelType arrayType) {
  switch (arrayType) {
    case typeShortArray:
      return sizeof(short);
    case typeIntArray:
    case typeFloatArray:
      return sizeof(int);
    case typeLongArray:
    case typeDoubleArray:
      return sizeof(double);
    case typeStringArray:
      return sizeof(const char*);
    default:
      return 1;
  }
}

void Record::addBlock(std::size_t size) {
  blocks_.push_back({std::make_unique_for_overwrite<char[]>(size), size, 0});
  allocated_ += size;
}

char* Record::allocateBlock(std::size_t bytes) {
  addBlock(std::max<std::size_t>(bytes, 1));
  blocks_.back().used = blocks_.back().size;
  return blocks_.back().bytes.get();
}

char* Record::allocate(std::size_t bytes) {
  const std::size_t rounded = (std::max<std::size_t>(bytes, 1) + 7U) & ~std::size_t{7};
  if (blocks_.empty() || blocks_.back().size - blocks_.back().used < rounded) {
    addBlock(std::max(rounded, std::max<std::size_t>(allocated_, 256)));
  }
  Block& block = blocks_.back();
  char* result = block.bytes.get() + block.used;
  block.used += rounded;
  return result;
}

const char* Record::copyText(std::string_view text) {
  char* copy = allocate(text.size() + 1);
  if (!text.empty()) std::memcpy(copy, text.data(), text.size());
  copy[text.size()] = '\0';
  return copy;
}

std::size_t Record::findIndex(std::string_view name, std::uint32_t hash) const {
  const auto same = [&](const Field& field) {
    return field.hash == hash && field.nameSize == name.size() &&
           (name.empty() || std::memcmp(field.name, name.data(), name.size()) == 0);
  };
  if (index_.empty()) {
    for (std::size_t i = 0; i < fields_.size(); ++i) {
      if (same(fields_[i])) return i;
    }
    return notFound;
  }
  const std::size_t mask = index_.size() - 1;
  for (std::size_t slot = hash & mask; index_[slot] != 0; slot = (slot + 1) & mask) {
    const std::size_t i = index_[slot] - 1;
    if (same(fields_[i])) return i;
  }
  return notFound;
}

const Field* Record::find(std::string_view name) const {
  const std::size_t i = findIndex(name, hashOf(name));
  return i == notFound ? nullptr : &fields_[i];
}

void Record::rebuildIndex() {
  std::size_t slots = 64;
  while (slots < fields_.size() * 4) slots *= 2;
  index_.assign(slots, 0);
  for (std::size_t i = 0; i < fields_.size(); ++i) {
    std::size_t slot = fields_[i].hash & (slots - 1);
    while (index_[slot] != 0) slot = (slot + 1) & (slots - 1);
    index_[slot] = static_cast<std::uint32_t>(i + 1);
  }
}

Field& Record::append(const char* name, std::size_t nameSize, std::uint32_t hash) {
  Field& field = fields_.emplace_back();
  field.name = name;
  field.nameSize = static_cast<std::uint32_t>(nameSize);
  field.hash = hash;
  if (fields_.size() > scanLimit) {
    if (fields_.size() * 2 > index_.size()) {
      rebuildIndex();
    } else {
      const std::size_t mask = index_.size() - 1;
      std::size_t slot = hash & mask;
      while (index_[slot] != 0) slot = (slot + 1) & mask;
      index_[slot] = static_cast<std::uint32_t>(fields_.size());
    }
  }
  return field;
}

Field& Record::put(std::string_view name) {
  const std::uint32_t hash = hashOf(name);
  const std::size_t i = findIndex(name, hash);
  if (i != notFound) return fields_[i];
  return append(name.empty() ? "" : copyText(name), name.size(), hash);
}

Field& Record::putInPlace(std::string_view name) {
  const std::uint32_t hash = hashOf(name);
  const std::size_t i = findIndex(name, hash);
  if (i != notFound) return fields_[i];
  return append(name.data(), name.size(), hash);
}

void Record::giveUpData(Field& field) {
  if (ownsData(field)) wasted_ += field.capacity;
  field.capacity = 0;
}

Field& Record::putScalar(std::string_view name, KelType type) {
  Field& field = put(name);
  giveUpData(field);
  field.type = type;
  field.value.int64 = 0;
  return field;
}

void* Record::setArray(Field& field, KelType type, std::size_t count) {
  const std::size_t bytes = count * elementSize(type);
  if (!ownsData(field) || field.capacity < bytes || field.value.data == nullptr) {
    giveUpData(field);
    field.value.data = allocate(bytes);
    field.capacity = static_cast<std::uint32_t>(bytes);
  }
  field.type = type;
  field.count = static_cast<std::uint32_t>(count);
  // Ours, and not shared: only a frozen record is.
  return const_cast<void*>(field.value.data);  // NOLINT(cppcoreguidelines-pro-type-const-cast)
}

void Record::setText(Field& field, std::string_view text) {
  const std::size_t bytes = text.size() + 1;
  if (!ownsData(field) || field.capacity < bytes || field.value.data == nullptr) {
    giveUpData(field);
    field.value.data = allocate(bytes);
    field.capacity = static_cast<std::uint32_t>(bytes);
  }
  field.type = typeString;
  field.count = static_cast<std::uint32_t>(text.size());
  auto* to = static_cast<char*>(
      const_cast<void*>(field.value.data));  // NOLINT(cppcoreguidelines-pro-type-const-cast)
  if (!text.empty()) std::memmove(to, text.data(), text.size());
  to[text.size()] = '\0';
}

void Record::setTexts(Field& field, const std::vector<std::string_view>& texts) {
  // Pointers and characters in one piece: what one insert replaces, one insert can use again.
  std::size_t bytes = texts.size() * sizeof(const char*);
  for (const std::string_view text : texts) bytes += text.size() + 1;
  if (!ownsData(field) || field.capacity < bytes || field.value.data == nullptr) {
    giveUpData(field);
    field.value.data = allocate(bytes);
    field.capacity = static_cast<std::uint32_t>(bytes);
  }
  field.type = typeStringArray;
  field.count = static_cast<std::uint32_t>(texts.size());
  void* start = const_cast<void*>(field.value.data);  // NOLINT(cppcoreguidelines-pro-type-const-cast)
  auto* pointers = static_cast<const char**>(start);
  char* characters = static_cast<char*>(start) + texts.size() * sizeof(const char*);
  for (std::size_t i = 0; i < texts.size(); ++i) {
    pointers[i] = characters;
    if (!texts[i].empty()) std::memcpy(characters, texts[i].data(), texts[i].size());
    characters += texts[i].size();
    *characters++ = '\0';
  }
}

void Record::setReason(std::string_view text) {
  reason = copyText(text);
}
void Record::setPublisher(std::string_view text) {
  publisher = copyText(text);
}

void Record::copyFieldsFrom(const Record& other) {
  fields_.reserve(other.fields_.size());
  std::vector<std::string_view> texts;
  for (const Field& from : other.fields_) {
    Field& to = put(from.nameView());
    if (from.type == typeStringArray) {
      const auto* pointers = static_cast<const char* const*>(from.value.data);
      texts.assign(pointers, pointers + from.count);
      setTexts(to, texts);
    } else if (from.type == typeString) {
      setText(to, from.text());
    } else if (from.type >= typeBoolArray) {
      const std::size_t bytes = from.count * elementSize(from.type);
      void* data = setArray(to, from.type, from.count);
      if (bytes > 0) std::memcpy(data, from.value.data, bytes);
    } else {
      to.type = from.type;
      to.value = from.value;
    }
  }
}

std::shared_ptr<Record> Record::clone() const {
  auto copy = std::make_shared<Record>();
  copy->copyFieldsFrom(*this);
  copy->quality = quality;
  copy->time = time;
  copy->hasTime = hasTime;
  copy->sequence = sequence;
  if (*publisher != '\0') copy->setPublisher(publisher);
  if (*reason != '\0') copy->setReason(reason);
  return copy;
}

void Record::tidy() {
  if (wasted_ < 4096 || wasted_ * 2 < allocated_) return;
  const auto fresh = clone();
  blocks_ = std::move(fresh->blocks_);
  fields_ = std::move(fresh->fields_);
  index_ = std::move(fresh->index_);
  publisher = fresh->publisher;
  reason = fresh->reason;
  allocated_ = fresh->allocated_;
  wasted_ = 0;
}

}  // namespace kel
