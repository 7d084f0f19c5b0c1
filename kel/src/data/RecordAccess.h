// RecordAccess: the library's own way between a KelData and its record.
#pragma once

#include <memory>
#include <utility>

#include "data/Record.h"
#include "kel/KelData.h"

namespace kel {

class RecordAccess {
 public:
  /// A record for a listener; `record` must be frozen.
  static KelData fromRecord(std::shared_ptr<Record> record) { return KelData(std::move(record)); }
  /// Never null for long: an empty KelData has the empty record.
  static const Record& record(const KelData& data);
  /// For changing what is not a field; a shared record is copied first.
  static Record& change(KelData& data) { return data.own(); }
};

}  // namespace kel
