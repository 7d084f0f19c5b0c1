#include "mapping.h"

Cmapping::Cmapping(CsimpleDPEWrapper& dpe, const CharString& tag)
    : valueConverter(nullptr), mappedDpe(dpe), kelTagName(static_cast<const char*>(tag)) {}

Cmapping::~Cmapping() = default;
