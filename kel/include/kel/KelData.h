// KelData: one record of a publication, a set of named and typed fields.
//
// Purpose    What a publisher fills and sends, and what a subscriber is handed. Fields are found by their
//            tag; a null or empty tag means the record's unnamed value.
// Ownership  A record made by KelFactory::createData (or by `new`) belongs to who made it. A record
//            handed to a listener belongs to the library and ends with the call. Pointers from the
//            extract family belong to the record and hold until it is changed or destroyed. Copies are
//            independent.
// Thread     One thread at a time for one record.
// Errors     extract throws KelException when the field is missing or of another type. insert throws
//            KelException for a tag that is not UTF-8 or longer than 65,000 bytes; the record is then
//            unchanged.
#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include <kel/KelException.h>
#include <kel/KelTimestamp.h>

namespace kel {
class Record;
class RecordAccess;
}  // namespace kel

class KelData {
 public:
  KelData();
  KelData(const KelData& other);
  KelData(KelData&& other) noexcept;
  KelData& operator=(const KelData& other);
  KelData& operator=(KelData&& other) noexcept;
  ~KelData();

  /// 1 boolean, 2 byte, 3 short, 4 int, 5 long, 6 float, 7 double, 8 string, ten times that for the array of
  /// each, 0 when the record has no such field.
  [[nodiscard]] int getValueType(const char* tag) const;

  /// How many fields the record has, the unnamed value included.
  [[nodiscard]] std::size_t size() const;

  /// 1 good, 2 and 0 of lesser standing, -1 no value at all.
  [[nodiscard]] int getQuality() const;
  /// The time of the values at their source.
  [[nodiscard]] const KelTimestamp& getTimestamp() const;

  [[nodiscard]] bool extractBool(const char* tag) const;
  [[nodiscard]] unsigned char extractByte(const char* tag) const;
  [[nodiscard]] short extractShort(const char* tag) const;
  [[nodiscard]] int extractInt(const char* tag) const;
  [[nodiscard]] std::int64_t extractLong(const char* tag) const;
  [[nodiscard]] float extractFloat(const char* tag) const;
  [[nodiscard]] double extractDouble(const char* tag) const;
  [[nodiscard]] const char* extractCString(const char* tag) const;

  /// Each sets `count` and returns the first element; the pointer is never null, also for an empty array.
  [[nodiscard]] const bool* extractBoolArray(int& count, const char* tag) const;
  [[nodiscard]] const unsigned char* extractByteArray(int& count, const char* tag) const;
  [[nodiscard]] const short* extractShortArray(int& count, const char* tag) const;
  [[nodiscard]] const int* extractIntArray(int& count, const char* tag) const;
  [[nodiscard]] const std::int64_t* extractLongArray(int& count, const char* tag) const;
  [[nodiscard]] const float* extractFloatArray(int& count, const char* tag) const;
  [[nodiscard]] const double* extractDoubleArray(int& count, const char* tag) const;
  [[nodiscard]] const char* const* extractCStringArray(int& count, const char* tag) const;

  /// Each adds the field or replaces the one that had the tag, whatever its type was. Values are copied. A
  /// null text is "". Only a bool is taken as bool; a pointer never is.
  void insert(const char* value, const char* tag);
  template <std::same_as<bool> Bool>
  void insert(Bool value, const char* tag) {
    insertBool(value, tag);
  }
  void insert(unsigned char value, const char* tag);
  void insert(short value, const char* tag);
  void insert(int value, const char* tag);
  void insert(long value, const char* tag);
  void insert(long long value, const char* tag);
  void insert(float value, const char* tag);
  void insert(double value, const char* tag);

  /// The array forms: `count` elements from `values`; a count of 0 or less makes an empty array. A text of an
  /// array that holds a NUL character inside travels as empty text.
  void insert(const bool* values, int count, const char* tag);
  void insert(const unsigned char* values, int count, const char* tag);
  void insert(const short* values, int count, const char* tag);
  void insert(const int* values, int count, const char* tag);
  void insert(const long* values, int count, const char* tag);
  void insert(const long long* values, int count, const char* tag);
  void insert(const float* values, int count, const char* tag);
  void insert(const double* values, int count, const char* tag);
  void insert(const char* const* values, int count, const char* tag);
  void insert(const std::string* values, int count, const char* tag);

  // For tools and for people who look: the gateway needs none of these.

  /// The tag of field `index` (0 to size() - 1, in the order of the record); "" is the unnamed value.
  [[nodiscard]] const char* fieldName(std::size_t index) const;
  /// Why the publisher declared the record bad; "" when it did not.
  [[nodiscard]] const char* getReason() const;
  /// Who published it: name, '/', incarnation; "" for a publisher that does not say.
  [[nodiscard]] const char* getPublisher() const;
  /// The publisher's count of the publication's records; 0 when it does not count.
  [[nodiscard]] std::int64_t getSequence() const;

 private:
  friend class kel::RecordAccess;
  explicit KelData(std::shared_ptr<kel::Record> record);
  void insertBool(bool value, const char* tag);
  kel::Record& own();

  std::shared_ptr<kel::Record> record_;  ///< shared between copies until one of them changes
};
