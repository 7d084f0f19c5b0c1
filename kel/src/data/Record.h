// Record: the fields behind a KelData.
//
// Names, texts and arrays lie in blocks that the record owns, so that a decoded record is one copy of its
// payload and one list of fields, and a tag is found without touching the heap. A record that came from a
// decoder is frozen: it is shared between threads and never changes again.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>
#include <vector>

#include "kel/KelTimestamp.h"

namespace kel {

/// The numbers of getValueType; an array is ten times its element.
enum KelType : std::uint8_t {
  typeNone = 0,
  typeBool = 1,
  typeByte = 2,
  typeShort = 3,
  typeInt = 4,
  typeLong = 5,
  typeFloat = 6,
  typeDouble = 7,
  typeString = 8,
  typeBoolArray = 10,
  typeByteArray = 20,
  typeShortArray = 30,
  typeIntArray = 40,
  typeLongArray = 50,
  typeFloatArray = 60,
  typeDoubleArray = 70,
  typeStringArray = 80,
};

[[nodiscard]] const char* typeName(int type);
/// Bytes of one element in memory; texts of an array count as pointers.
[[nodiscard]] std::size_t elementSize(KelType arrayType);

struct Field {
  const char* name = "";  ///< NUL-terminated; "" is the unnamed value
  std::uint32_t nameSize = 0;
  std::uint32_t hash = 0;
  KelType type = typeNone;
  std::uint32_t count = 0;     ///< characters of a text, elements of an array
  std::uint32_t capacity = 0;  ///< bytes behind `data` that may be used again
  union Value {
    bool boolean;
    unsigned char byte;
    short int16;
    int int32;
    std::int64_t int64;
    float single;
    double real;
    const void* data;  ///< text (NUL-terminated) or elements, aligned for them
  } value{};

  [[nodiscard]] std::string_view nameView() const { return {name, nameSize}; }
  [[nodiscard]] std::string_view text() const { return {static_cast<const char*>(value.data), count}; }
};

class Record {
 public:
  Record() = default;
  Record(const Record&) = delete;
  Record& operator=(const Record&) = delete;

  /// A deep copy that may be changed.
  [[nodiscard]] std::shared_ptr<Record> clone() const;

  [[nodiscard]] const std::vector<Field>& fields() const { return fields_; }
  [[nodiscard]] const Field* find(std::string_view name) const;

  /// The field of this name, made when there is none; its type and value are the caller's to set. The name is
  /// copied. Pointers to fields hold until the next call.
  Field& put(std::string_view name);
  /// As put, for a value that lies in the field itself.
  Field& putScalar(std::string_view name, KelType type);
  /// As put, but the name is kept where it is: for names in a block of this record.
  Field& putInPlace(std::string_view name);

  void setText(Field& field, std::string_view text);
  /// Room for `count` elements, not set yet.
  void* setArray(Field& field, KelType type, std::size_t count);
  /// Copies texts behind the pointers of a text array.
  void setTexts(Field& field, const std::vector<std::string_view>& texts);

  /// Memory that lives as long as the record.
  [[nodiscard]] char* allocate(std::size_t bytes);
  /// The same with a block of its own, of exactly this size.
  [[nodiscard]] char* allocateBlock(std::size_t bytes);
  /// Gives back what replaced values have left behind, when it is much. Moves every value.
  void tidy();
  void reserveFields(std::size_t count) { fields_.reserve(count); }

  void freeze() { frozen_ = true; }
  [[nodiscard]] bool frozen() const { return frozen_; }
  /// About what the record costs in memory.
  [[nodiscard]] std::size_t memoryBytes() const {
    return allocated_ + fields_.capacity() * sizeof(Field) + index_.capacity() * sizeof(std::uint32_t);
  }

  int quality = 1;
  KelTimestamp time;
  bool hasTime = false;
  std::int64_t sequence = 0;  ///< 0: not counted
  const char* publisher = "";
  const char* reason = "";
  /// Copies into the record.
  void setReason(std::string_view text);
  void setPublisher(std::string_view text);

 private:
  [[nodiscard]] std::size_t findIndex(std::string_view name, std::uint32_t hash) const;
  Field& append(const char* name, std::size_t nameSize, std::uint32_t hash);
  void rebuildIndex();
  void giveUpData(Field& field);
  void addBlock(std::size_t size);
  const char* copyText(std::string_view text);
  void copyFieldsFrom(const Record& other);

  struct Block {
    std::unique_ptr<char[]> bytes;
    std::size_t size = 0;
    std::size_t used = 0;
  };
  std::vector<Block> blocks_;
  std::vector<Field> fields_;
  std::vector<std::uint32_t> index_;  ///< open addressing, field number + 1; empty while a scan is quicker
  std::size_t allocated_ = 0;
  std::size_t wasted_ = 0;
  bool frozen_ = false;
};

/// The way from the public face to the record and back.
class RecordAccess;

}  // namespace kel
