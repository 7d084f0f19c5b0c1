// KelValue: fields of Kel records as Datum and back, their types' names, and how they stand on a command
// line.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "Datum.h"
#include "Json.h"

class KelData;

namespace kelgw {

struct Settings;
class CommandError;

struct KelField {
  std::string tag;  ///< empty: the unnamed value
  Datum value;
};

/// "float" or "float[]" for a Kel type id; "unknown" for an id that is none.
[[nodiscard]] std::string kelTypeName(int id);
[[nodiscard]] std::string kelTypeName(DatumType type);
/// The id of a type name; throws DatumError that lists the names.
[[nodiscard]] DatumType kelTypeOf(std::string_view name);

/// Reads TAG=TYPE:VALUE, for example `speed=float:12.5`, `=int:3` (the unnamed value), `names=string[]:a,b`.
[[nodiscard]] KelField parseKelField(std::string_view text, bool escapes);
/// The same form, with the tag escaped.
[[nodiscard]] std::string showKelField(const KelField& field, std::size_t widest);

[[nodiscard]] std::vector<KelField> fieldsOf(const KelData& record);
/// Throws KelException for a tag that no field can have.
void insertField(KelData& record, const KelField& field);

/// "good", "bad", "none" and the plain number for anything else.
[[nodiscard]] std::string qualityWord(int quality);
/// Everything of a record, for scripts.
[[nodiscard]] Json jsonOf(const KelData& record);
/// One line of fields, for people.
[[nodiscard]] std::string showFields(const KelData& record, std::size_t widest);

/// The error for a broker that did not answer: address, reason, and what to do.
[[nodiscard]] CommandError unreachableBroker(const Settings& settings, std::string_view reason);
/// Throws CommandError (a server could not be reached) unless the broker answers within the limit.
void requireBroker(const Settings& settings);
/// The address in use, for messages.
[[nodiscard]] std::string brokerAddress(const Settings& settings);

}  // namespace kelgw
