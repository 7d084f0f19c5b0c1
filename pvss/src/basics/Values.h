// Values: what the library needs to know of values beyond their classes.
//
// Thread     Pure functions; nothing blocks. Only running out of memory throws.
#pragma once

#include <memory>
#include <string_view>

#include "pvss/DpElementType.h"
#include "pvss/Variable.h"

namespace pvss {

using SharedValue = std::shared_ptr<const Variable>;

/// The variable type that an element of this type holds, NOTYPE_VAR when the type is none.
[[nodiscard]] VariableType variableTypeOf(DpElementType type) noexcept;

/// The value that an element of this type has before the first write: 0, "", an empty array. One shared
/// object per type; null when the type is none.
[[nodiscard]] const SharedValue& defaultValue(DpElementType type);

/// A copy in one allocation.
[[nodiscard]] SharedValue shareCopy(const Variable& value);

/// Same type and same content; every NaN is the same as every other, 0 and -0 differ.
[[nodiscard]] bool sameValue(const Variable& left, const Variable& right);

/// Bytes that the value takes in memory, about.
[[nodiscard]] std::size_t sizeOf(const Variable& value) noexcept;

/// The word of the plant file for a type ("bit", "dyn_float", ...), and back. Empty and DPELEMENT_NOELEMENT
/// for what has no word.
[[nodiscard]] std::string_view typeWord(DpElementType type) noexcept;
[[nodiscard]] DpElementType typeOfWord(std::string_view word) noexcept;

}  // namespace pvss
