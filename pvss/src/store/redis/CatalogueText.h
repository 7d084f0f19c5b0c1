// CatalogueText: the text that stands behind an element in dp:cat.
//
// Form       <type word> [" d" <mask>] [" a" <type> " " <length of driver> ":" <driver> <reference>]
//            "float"    "int d3"    "float a1 3:KELplant/boiler1\x1Atemperature"
//            The reference runs to the end, so any bytes may stand in it. The type word comes first, so that
//            the server can see a change of type.
// Thread     Pure functions.
#pragma once

#include <string>
#include <string_view>

#include "store/DatapointStore.h"

namespace pvss::redis {

/// Appends the text of everything but the name.
void appendCatalogueText(const CatalogueEntry& entry, std::string& out);

/// Fills everything but the name. False for a text that is none; the type is then DPELEMENT_NOELEMENT.
bool parseCatalogueText(std::string_view text, CatalogueEntry& entry);

}  // namespace pvss::redis
