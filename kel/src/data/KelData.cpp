#include "kel/KelData.h"

#include <cstring>
#include <type_traits>
#include <vector>

#include "data/Record.h"
#include "data/RecordAccess.h"
#include "kel/testing/KelDataBuilder.h"
#include "wire/Utf8.h"

using kel::Field;
using kel::KelType;
using kel::Record;

namespace {

constexpr std::size_t longestTag = 65'000;
constexpr std::size_t largestValue = 64U << 20U;

const Record& emptyRecord() {
  static const Record empty;
  return empty;
}

std::string_view nameOf(const char* tag) {
  return tag == nullptr ? std::string_view() : std::string_view(tag);
}

std::string_view checkedName(const char* tag) {
  const std::string_view name = nameOf(tag);
  if (name.size() > longestTag) throw KelException("the tag of a field is longer than 65000 bytes");
  if (!kel::isUtf8(name)) throw KelException("the tag of a field is not UTF-8");
  return name;
}

std::string fieldLabel(const char* tag) {
  return nameOf(tag).empty() ? std::string("the unnamed value") : "field " + std::string(tag);
}

[[noreturn]] void throwWrongType(const Field* field, const char* tag, KelType wanted) {
  if (field == nullptr)
    throw KelException("the record has no " + fieldLabel(tag).erase(0, nameOf(tag).empty() ? 4 : 0));
  throw KelException(fieldLabel(tag) + " is " + kel::typeName(field->type) + ", not " +
                     kel::typeName(wanted));
}

const Field& fieldOf(const Record& record, const char* tag, KelType type) {
  const Field* field = record.find(nameOf(tag));
  if (field == nullptr || field->type != type) throwWrongType(field, tag, type);
  return *field;
}

template <class Element>
const Element* elementsOf(const Record& record, int& count, const char* tag, KelType type) {
  const Field& field = fieldOf(record, tag, type);
  count = static_cast<int>(field.count);
  return static_cast<const Element*>(field.value.data);
}

std::size_t elements(int count, std::size_t size) {
  const std::size_t result = count > 0 ? static_cast<std::size_t>(count) : 0;
  if (result * size > largestValue)
    throw KelException("an array of " + std::to_string(result) + " elements is too large");
  return result;
}

template <class Element>
void putArray(Record& record, const Element* values, int count, std::string_view name, KelType type) {
  const std::size_t number = elements(count, sizeof(Element));
  void* to = record.setArray(record.put(name), type, number);
  if (number > 0) std::memmove(to, values, number * sizeof(Element));
  record.tidy();
}

}  // namespace

namespace kel {

const Record& RecordAccess::record(const KelData& data) {
  return data.record_ ? *data.record_ : emptyRecord();
}

namespace testing {

KelData& setQuality(KelData& data, int quality) {
  RecordAccess::change(data).quality = quality;
  return data;
}

KelData& setTimestamp(KelData& data, std::int64_t nanoseconds) {
  Record& record = RecordAccess::change(data);
  record.time = KelTimestamp(nanoseconds);
  record.hasTime = true;
  return data;
}

KelData& setReason(KelData& data, const std::string& reason) {
  RecordAccess::change(data).setReason(reason);
  return data;
}

}  // namespace testing
}  // namespace kel

KelData::KelData() = default;
KelData::KelData(const KelData& other)
    : record_(other.record_ && !other.record_->frozen() ? other.record_->clone() : other.record_) {}
KelData::KelData(KelData&& other) noexcept = default;
KelData& KelData::operator=(const KelData& other) {
  if (this != &other) *this = KelData(other);
  return *this;
}
KelData& KelData::operator=(KelData&& other) noexcept = default;
KelData::~KelData() = default;
KelData::KelData(std::shared_ptr<Record> record) : record_(std::move(record)) {}

Record& KelData::own() {
  if (!record_) {
    record_ = std::make_shared<Record>();
  } else if (record_->frozen()) {
    record_ = record_->clone();
  }
  return *record_;
}

int KelData::getValueType(const char* tag) const {
  const Field* field = kel::RecordAccess::record(*this).find(nameOf(tag));
  return field == nullptr ? 0 : field->type;
}

std::size_t KelData::size() const {
  return kel::RecordAccess::record(*this).fields().size();
}
int KelData::getQuality() const {
  return kel::RecordAccess::record(*this).quality;
}
const KelTimestamp& KelData::getTimestamp() const {
  return kel::RecordAccess::record(*this).time;
}
const char* KelData::getReason() const {
  return kel::RecordAccess::record(*this).reason;
}
const char* KelData::getPublisher() const {
  return kel::RecordAccess::record(*this).publisher;
}
std::int64_t KelData::getSequence() const {
  return kel::RecordAccess::record(*this).sequence;
}

const char* KelData::fieldName(std::size_t index) const {
  const auto& fields = kel::RecordAccess::record(*this).fields();
  if (index >= fields.size()) throw KelException("the record has no field number " + std::to_string(index));
  return fields[index].name;
}

bool KelData::extractBool(const char* tag) const {
  return fieldOf(kel::RecordAccess::record(*this), tag, kel::typeBool).value.boolean;
}
unsigned char KelData::extractByte(const char* tag) const {
  return fieldOf(kel::RecordAccess::record(*this), tag, kel::typeByte).value.byte;
}
short KelData::extractShort(const char* tag) const {
  return fieldOf(kel::RecordAccess::record(*this), tag, kel::typeShort).value.int16;
}
int KelData::extractInt(const char* tag) const {
  return fieldOf(kel::RecordAccess::record(*this), tag, kel::typeInt).value.int32;
}
std::int64_t KelData::extractLong(const char* tag) const {
  return fieldOf(kel::RecordAccess::record(*this), tag, kel::typeLong).value.int64;
}
float KelData::extractFloat(const char* tag) const {
  return fieldOf(kel::RecordAccess::record(*this), tag, kel::typeFloat).value.single;
}
double KelData::extractDouble(const char* tag) const {
  return fieldOf(kel::RecordAccess::record(*this), tag, kel::typeDouble).value.real;
}
const char* KelData::extractCString(const char* tag) const {
  return static_cast<const char*>(fieldOf(kel::RecordAccess::record(*this), tag, kel::typeString).value.data);
}

const bool* KelData::extractBoolArray(int& count, const char* tag) const {
  return elementsOf<bool>(kel::RecordAccess::record(*this), count, tag, kel::typeBoolArray);
}
const unsigned char* KelData::extractByteArray(int& count, const char* tag) const {
  return elementsOf<unsigned char>(kel::RecordAccess::record(*this), count, tag, kel::typeByteArray);
}
const short* KelData::extractShortArray(int& count, const char* tag) const {
  return elementsOf<short>(kel::RecordAccess::record(*this), count, tag, kel::typeShortArray);
}
const int* KelData::extractIntArray(int& count, const char* tag) const {
  return elementsOf<int>(kel::RecordAccess::record(*this), count, tag, kel::typeIntArray);
}
const std::int64_t* KelData::extractLongArray(int& count, const char* tag) const {
  return elementsOf<std::int64_t>(kel::RecordAccess::record(*this), count, tag, kel::typeLongArray);
}
const float* KelData::extractFloatArray(int& count, const char* tag) const {
  return elementsOf<float>(kel::RecordAccess::record(*this), count, tag, kel::typeFloatArray);
}
const double* KelData::extractDoubleArray(int& count, const char* tag) const {
  return elementsOf<double>(kel::RecordAccess::record(*this), count, tag, kel::typeDoubleArray);
}
const char* const* KelData::extractCStringArray(int& count, const char* tag) const {
  return elementsOf<const char*>(kel::RecordAccess::record(*this), count, tag, kel::typeStringArray);
}

void KelData::insert(const char* value, const char* tag) {
  const std::string_view name = checkedName(tag);
  const std::string_view text = nameOf(value);
  if (text.size() > largestValue)
    throw KelException("a text of " + std::to_string(text.size()) + " bytes is too large");
  Record& record = own();
  record.setText(record.put(name), text);
  record.tidy();
}
void KelData::insertBool(bool value, const char* tag) {
  const std::string_view name = checkedName(tag);
  own().putScalar(name, kel::typeBool).value.boolean = value;
}
void KelData::insert(unsigned char value, const char* tag) {
  const std::string_view name = checkedName(tag);
  own().putScalar(name, kel::typeByte).value.byte = value;
}
void KelData::insert(short value, const char* tag) {
  const std::string_view name = checkedName(tag);
  own().putScalar(name, kel::typeShort).value.int16 = value;
}
void KelData::insert(int value, const char* tag) {
  const std::string_view name = checkedName(tag);
  own().putScalar(name, kel::typeInt).value.int32 = value;
}
void KelData::insert(long long value, const char* tag) {
  const std::string_view name = checkedName(tag);
  own().putScalar(name, kel::typeLong).value.int64 = value;
}
void KelData::insert(long value, const char* tag) {
  insert(static_cast<long long>(value), tag);
}
void KelData::insert(float value, const char* tag) {
  const std::string_view name = checkedName(tag);
  own().putScalar(name, kel::typeFloat).value.single = value;
}
void KelData::insert(double value, const char* tag) {
  const std::string_view name = checkedName(tag);
  own().putScalar(name, kel::typeDouble).value.real = value;
}

void KelData::insert(const bool* values, int count, const char* tag) {
  const std::string_view name = checkedName(tag);
  putArray(own(), values, count, name, kel::typeBoolArray);
}
void KelData::insert(const unsigned char* values, int count, const char* tag) {
  const std::string_view name = checkedName(tag);
  putArray(own(), values, count, name, kel::typeByteArray);
}
void KelData::insert(const short* values, int count, const char* tag) {
  const std::string_view name = checkedName(tag);
  putArray(own(), values, count, name, kel::typeShortArray);
}
void KelData::insert(const int* values, int count, const char* tag) {
  const std::string_view name = checkedName(tag);
  putArray(own(), values, count, name, kel::typeIntArray);
}
void KelData::insert(const long* values, int count, const char* tag) {
  static_assert(sizeof(long) == sizeof(std::int64_t), "a Kel long has 64 bits");
  const std::string_view name = checkedName(tag);
  putArray(own(), values, count, name, kel::typeLongArray);
}
void KelData::insert(const long long* values, int count, const char* tag) {
  const std::string_view name = checkedName(tag);
  putArray(own(), values, count, name, kel::typeLongArray);
}
void KelData::insert(const float* values, int count, const char* tag) {
  const std::string_view name = checkedName(tag);
  putArray(own(), values, count, name, kel::typeFloatArray);
}
void KelData::insert(const double* values, int count, const char* tag) {
  const std::string_view name = checkedName(tag);
  putArray(own(), values, count, name, kel::typeDoubleArray);
}

void KelData::insert(const char* const* values, int count, const char* tag) {
  const std::string_view name = checkedName(tag);
  std::vector<std::string_view> texts(elements(count, sizeof(const char*)));
  for (std::size_t i = 0; i < texts.size(); ++i) texts[i] = nameOf(values[i]);
  Record& record = own();
  record.setTexts(record.put(name), texts);
  record.tidy();
}
void KelData::insert(const std::string* values, int count, const char* tag) {
  const std::string_view name = checkedName(tag);
  std::vector<std::string_view> texts(elements(count, sizeof(const char*)));
  for (std::size_t i = 0; i < texts.size(); ++i) {
    // A NUL inside would end the text on its way; all or nothing.
    if (values[i].find('\0') == std::string::npos) texts[i] = values[i];
  }
  Record& record = own();
  record.setTexts(record.put(name), texts);
  record.tidy();
}
