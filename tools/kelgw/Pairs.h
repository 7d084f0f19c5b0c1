// Pairs: which Kel types go into which elements, for tools that say so before anything runs.
//
// The gateway's own tables decide; a unit test holds these against them.
#pragma once

#include <string_view>

#include "pvss/DpElementType.h"

namespace kelgw {

/// Whether a field of the Kel type may feed an element of the type.
[[nodiscard]] bool kelFeeds(int kelType, DpElementType elementType);
/// The name of the element type that the Kel type feeds; "no element" for an id that is none.
[[nodiscard]] std::string_view elementTypeFedBy(int kelType);

}  // namespace kelgw
