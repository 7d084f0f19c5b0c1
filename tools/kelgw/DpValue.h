// DpValue: values of data point elements as Datum and back, and the names of their types.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Datum.h"
#include "Json.h"
#include "pvss/StoreAdmin.h"

namespace kelgw {

/// The name as in a plant file, for example "dyn_float"; "none" for no element.
[[nodiscard]] std::string_view typeName(DpElementType type);
/// How values of the type are read and shown; nothing for a type that no element of a store has.
[[nodiscard]] std::optional<DatumType> datumTypeOf(DpElementType type);

[[nodiscard]] Datum datumOf(const Variable& value);
/// The datum must have the type that datumTypeOf gives. Texts with a NUL byte throw DatumError.
[[nodiscard]] std::shared_ptr<const Variable> variableOf(const Datum& datum);
/// Bit for bit the same value (one NaN equals another).
[[nodiscard]] bool sameValue(const Variable* left, const Variable* right);

/// "Dp.element" of a name as people write it: without "System1:" in front and without ":_original.." behind.
[[nodiscard]] std::string elementName(std::string_view text);

/// All of one reading, for scripts.
[[nodiscard]] Json jsonOf(const pvss::StoreReading& reading);
/// Value column of a table: "-" when never written.
[[nodiscard]] std::string showValue(const pvss::StoreReading& reading, std::size_t widest);

struct Settings;
/// The store that the command line or the environment names, connected. Throws CommandError and StoreError.
[[nodiscard]] pvss::StoreAdmin openStore(const Settings& settings);
/// The names that the patterns mean, in the order of the catalogue; names without * and ? as they stand.
/// Throws CommandError (it did not hold) for what does not exist.
[[nodiscard]] std::vector<std::string> expandNames(pvss::StoreAdmin& store,
                                                   const std::vector<std::string>& wanted);

}  // namespace kelgw
