#include "dpeMapping.h"

#include "platformDependant.h"

namespace {

constexpr runtime::Notice<const char*, const char*> mappingDestroyed{
    "dpeMapping", "Destroying publisher mapping between DPE %s tag %s\n"};

}  // namespace

CdpeMapping::CdpeMapping(CpubDpeWrapper* dpeToPublish, const CharString& tag)
    : Cmapping(*dpeToPublish, tag),
      dpe(dpeToPublish),
      converter(TMap::findDpeToKelConverterFor(dpeToPublish->getTypeOfValueID())) {}

CdpeMapping::~CdpeMapping() {
  runtime::inform(mappingDestroyed, getDPEName(), getTagName());
  delete dpe;
}

void CdpeMapping::writeValueToKelData(KelData& data, Variable* value) const {
  converter->convert(data, value, CharString(getTagName()));
}
