#include <cstring>
#include <limits>

#include "wire/Metric.h"
#include "wire/ProtoWire.h"
#include "wire/RecordCodec.h"

namespace kel {
namespace {

using proto::key;
using proto::Reader;

std::string quoted(std::string_view name) {
  return "'" + std::string(name.substr(0, 200)) + "'";
}

// What a field and an element of an array cost where the record is unpacked and where its values go from
// here: as a variable with its own type, a text with the text's own object.
constexpr std::size_t fieldCost = sizeof(Field) + 48;
constexpr std::size_t numberCost = 16;
constexpr std::size_t textCost = sizeof(std::string) + 16;
// No byte of a payload can cost more: eight booleans.
constexpr std::size_t mostPerByte = 8 * (1 + numberCost) + 1;

std::size_t elementCost(KelType arrayType) {
  return elementSize(arrayType) + (arrayType == typeStringArray ? textCost : numberCost);
}

class Decoder {
 public:
  explicit Decoder(std::size_t mostMemory) : mostMemory_(mostMemory) {}

  DecodedRecord decode(std::string_view payload) {
    DecodedRecord result;
    if (payload.size() > largestPayload) {
      result.error =
          "the payload has " + std::to_string(payload.size()) + " bytes, more than a record may have";
      return result;
    }
    std::size_t metrics = 0;
    if (!countMetrics(payload, metrics) || !fits(payload)) {
      result.error = std::move(error_);
      return result;
    }
    record_ = std::make_shared<Record>();
    copy_ = record_->allocateBlock(payload.size() + 1);
    if (!payload.empty()) std::memcpy(copy_, payload.data(), payload.size());
    bytes_ = std::string_view(copy_, payload.size());
    record_->reserveFields(metrics);
    if (readPayload() && unpackArrays()) {
      finish();
      result.record = std::move(record_);
    } else {
      result.error = std::move(error_);
    }
    return result;
  }

 private:
  bool fail(std::string reason) {
    error_ = std::move(reason);
    return false;
  }

  bool countMetrics(std::string_view payload, std::size_t& metrics) {
    Reader reader(payload);
    while (reader.ok() && !reader.atEnd()) {
      const std::uint64_t fieldKey = reader.readVarint();
      if (fieldKey == key(2, proto::delimited)) ++metrics;
      reader.skip((fieldKey >> 3U) == 0 ? 7 : static_cast<std::uint32_t>(fieldKey & 7U));
    }
    if (!reader.ok()) return fail("the payload is truncated or not a protobuf message");
    if (metrics > mostFields)
      return fail("the payload has " + std::to_string(metrics) + " metrics, too many for a record");
    return true;
  }

  /// Looks at what a record would cost before anything of it is unpacked.
  bool fits(std::string_view payload) {
    if (payload.size() <= mostMemory_ / mostPerByte) return true;
    std::size_t cost = payload.size();
    Reader reader(payload);
    while (reader.ok() && !reader.atEnd()) {
      const std::uint64_t fieldKey = reader.readVarint();
      if (fieldKey == key(2, proto::delimited)) {
        cost += fieldCost + arrayCost(reader.readDelimited());
      } else {
        reader.skip(static_cast<std::uint32_t>(fieldKey & 7U));
      }
    }
    if (cost <= mostMemory_) return true;
    return fail("unpacked it would take " + std::to_string(cost) + " bytes of memory, and the limit is " +
                std::to_string(mostMemory_) + " (option recordBytes)");
  }

  static std::size_t arrayCost(std::string_view bytes) {
    Metric metric;
    Reader reader(bytes);
    readMetric(reader, metric);
    const KelType type = ruleOf(metric.datatype).type;
    std::size_t count = 0;
    // What is no array is refused as that, later.
    if (type < typeBoolArray || metric.kind != ValueKind::bytes ||
        countElements(type, metric.bytes, count) != nullptr) {
      return 0;
    }
    return count * elementCost(type);
  }

  bool readPayload() {
    Reader reader(bytes_);
    while (!reader.atEnd()) {
      const std::uint64_t fieldKey = reader.readVarint();
      if (fieldKey == key(2, proto::delimited)) {
        if (!takeMetric(reader.readDelimited())) return false;
      } else if (fieldKey == key(1, proto::varint)) {
        timestampMs_ = reader.readVarint();
        hasTimestamp_ = true;
      } else {
        reader.skip(static_cast<std::uint32_t>(fieldKey & 7U));
      }
    }
    return true;
  }

  bool takeMetric(std::string_view bytes) {
    Metric metric;
    Reader reader(bytes);
    readMetric(reader, metric);
    if (!reader.ok()) return fail("a metric is truncated or not a protobuf message");
    if (metric.name.empty()) return fail("a metric has no name");
    if (std::memchr(metric.name.data(), 0, metric.name.size()) != nullptr) {
      return fail("a metric's name holds a NUL character");
    }
    if (metric.isNull) return true;
    const bool reserved = metric.name[0] == '_' && (metric.name.size() == 1 || metric.name[1] != '_');
    if (reserved && metric.name != "_value") return takeReserved(metric);
    if (!metric.hasDatatype) return fail("metric " + quoted(metric.name) + " has no datatype");
    const DatatypeRule rule = ruleOf(metric.datatype);
    if (rule.type == typeNone) {
      return fail("metric " + quoted(metric.name) + " has datatype " + std::to_string(metric.datatype) +
                  ", which Kel does not have");
    }
    if (rule.kind != metric.kind) {
      return fail("metric " + quoted(metric.name) + " has no value of its datatype " +
                  std::to_string(metric.datatype));
    }
    std::string_view name = metric.name;
    if (reserved) {
      name = {};
    } else if (name[0] == '_') {
      name.remove_prefix(1);
    }
    Field& field = name.empty() ? record_->putInPlace("") : record_->putInPlace(name);
    field.type = rule.type;
    setValue(field, metric);
    return true;
  }

  void setValue(Field& field, const Metric& metric) {
    field.count = 0;
    switch (field.type) {
      case typeBool:
        field.value.boolean = metric.number != 0;
        break;
      case typeByte:
        field.value.byte = static_cast<unsigned char>(metric.number & 0xFFU);
        break;
      case typeShort:
        field.value.int16 = static_cast<short>(static_cast<std::uint16_t>(metric.number & 0xFFFFU));
        break;
      case typeInt:
        field.value.int32 = static_cast<int>(static_cast<std::uint32_t>(metric.number & 0xFFFFFFFFU));
        break;
      case typeLong:
        field.value.int64 = static_cast<std::int64_t>(metric.number);
        break;
      case typeFloat:
        field.value.single = metric.single;
        break;
      case typeDouble:
        field.value.real = metric.real;
        break;
      default:
        // Texts end where they lie; arrays are unpacked when all are known.
        field.value.data = metric.bytes.data();
        field.count = static_cast<std::uint32_t>(metric.bytes.size());
        if (field.type != typeString) hasArrays_ = true;
        break;
    }
  }

  bool takeReserved(const Metric& metric) {
    const auto isNumber = [&](Datatype datatype, ValueKind kind) {
      return metric.datatype == datatype && metric.kind == kind;
    };
    const bool isText = (metric.datatype == dataString && metric.kind == ValueKind::text) ||
                        (metric.datatype == dataBytes && metric.kind == ValueKind::bytes);
    bool good = true;
    if (metric.name == "_quality") {
      good = isNumber(dataInt32, ValueKind::integer);
      record_->quality = static_cast<int>(static_cast<std::uint32_t>(metric.number & 0xFFFFFFFFU));
    } else if (metric.name == "_time") {
      good = isNumber(dataInt64, ValueKind::longInteger);
      record_->time = KelTimestamp(static_cast<std::int64_t>(metric.number));
      record_->hasTime = true;
    } else if (metric.name == "_seq") {
      good = isNumber(dataInt64, ValueKind::longInteger) && static_cast<std::int64_t>(metric.number) > 0;
      record_->sequence = static_cast<std::int64_t>(metric.number);
    } else if (metric.name == "_publisher") {
      good = isText && metric.bytes.size() <= longestPublisher;
      publisher_ = metric.bytes;
    } else if (metric.name == "_reason") {
      good = isText;
      reason_ = metric.bytes;
    }
    return good || fail("metric " + quoted(metric.name) + " is not what this reserved name must carry");
  }

  bool unpackArrays() {
    if (!hasArrays_) return true;
    std::size_t room = 0;
    for (const Field& field : record_->fields()) {
      if (field.type < typeBoolArray) continue;
      std::size_t count = 0;
      if (const char* wrong = countElements(field.type, field.text(), count); wrong != nullptr) {
        return fail("metric " + quoted(field.nameView()) + " is " + wrong);
      }
      if (field.type != typeByteArray) room += (count * elementSize(field.type) + 7) & ~std::size_t{7};
    }
    char* at = record_->allocateBlock(room);
    for (const Field& fixed : record_->fields()) {
      if (fixed.type < typeBoolArray || fixed.type == typeByteArray) continue;
      Field& field = record_->putInPlace(fixed.nameView());
      const std::string_view bytes = field.text();
      std::size_t count = 0;
      countElements(field.type, bytes, count);
      unpack(field.type, bytes, count, at);
      field.value.data = at;
      field.count = static_cast<std::uint32_t>(count);
      at += (count * elementSize(field.type) + 7) & ~std::size_t{7};
    }
    return true;
  }

  static void unpack(KelType type, std::string_view bytes, std::size_t count, char* to) {
    if (type == typeBoolArray) {
      auto* booleans = reinterpret_cast<bool*>(to);
      for (std::size_t i = 0; i < count; ++i) {
        booleans[i] = (static_cast<unsigned char>(bytes[4 + i / 8]) & (0x80U >> (i % 8))) != 0;
      }
    } else if (type == typeStringArray) {
      auto* texts = reinterpret_cast<const char**>(to);
      const char* at = bytes.data();
      for (std::size_t i = 0; i < count; ++i) {
        texts[i] = at;
        at += std::strlen(at) + 1;
      }
    } else if (!bytes.empty()) {
      std::memcpy(to, bytes.data(), bytes.size());
    }
  }

  /// Everything is read, so the byte behind a name or a text is not needed any more and may end it.
  void finish() {
    for (const Field& field : record_->fields()) {
      if (field.nameSize > 0) copy_[field.name + field.nameSize - copy_] = '\0';
      if (field.type == typeString) {
        const std::string_view text = field.text();
        copy_[text.data() + text.size() - copy_] = '\0';
      }
    }
    if (!publisher_.empty()) record_->publisher = ended(publisher_);
    if (!reason_.empty()) record_->reason = ended(reason_);
    constexpr std::uint64_t latest =
        static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max()) / 1'000'000;
    if (!record_->hasTime && hasTimestamp_ && timestampMs_ <= latest) {
      record_->time = KelTimestamp(static_cast<std::int64_t>(timestampMs_) * 1'000'000);
      record_->hasTime = true;
    }
    record_->freeze();
  }

  const char* ended(std::string_view text) {
    copy_[text.data() + text.size() - copy_] = '\0';
    return text.data();
  }

  const std::size_t mostMemory_;
  std::shared_ptr<Record> record_;
  char* copy_ = nullptr;
  std::string_view bytes_;
  std::string_view publisher_;
  std::string_view reason_;
  std::uint64_t timestampMs_ = 0;
  bool hasTimestamp_ = false;
  bool hasArrays_ = false;
  std::string error_;
};

}  // namespace

DecodedRecord decodeRecord(std::string_view payload, std::size_t mostMemory) {
  return Decoder(mostMemory).decode(payload);
}

}  // namespace kel
