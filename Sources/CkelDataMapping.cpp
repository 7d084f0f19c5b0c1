#include "CkelDataMapping.h"

#include <pvss/BitVar.h>

#include "CkelSubscription.h"
#include "platformDependant.h"

namespace {

constexpr runtime::Notice<const char*, const char*> mappingCreated{
    "CkelDataMapping", "Created client mapping between DPE %s and publication %s\n"};
constexpr runtime::Notice<const char*, const char*> mappingDestroyed{
    "CkelDataMapping", "Destroyed client mapping between DPE %s and publication %s\n"};
constexpr runtime::Report<const char*> fieldMissing{"CkelDataMapping", 59,
                                                    "KEL address %s does not exist in publication\n"};
constexpr runtime::Report<int> converterMissing{"CkelDataMapping", 73, "Can not find converter (%d)\n"};
constexpr runtime::Report<const char*, const char*> conversionFailed{
    "CkelDataMapping", 98, "Failed to convert either the value or quality from %s to %s\n"};

constexpr int noQuality = -1;
constexpr int goodQuality = 1;
constexpr int missingField = 0;

}  // namespace

CkelDataMapping::CkelDataMapping(CdpeWrapper& dpe, const CharString& tag, const CharString& fullAddress,
                                 CkelSubscription& owner)
    : Cmapping(dpe, tag),
      fullKELAddress(fullAddress),
      dpeType(dpe.getTypeOfValueID()),
      subscription(owner),
      badTypeConversion(false),
      mostRecentKelQuality(noQuality),
      shownDpe(shownStateOf(dpe)) {
  dpe.setMapping(this);
  runtime::inform(mappingCreated, getDPEName(), fullKELAddress);
}

CkelDataMapping::~CkelDataMapping() {
  runtime::inform(mappingDestroyed, getDPEName(), fullKELAddress);
  getMappedDpe().setMapping(nullptr);
}

CdpeWrapper& CkelDataMapping::getMappedDpe() const {
  // The constructor was given exactly this kind of wrapper, to be changed.
  return const_cast<CdpeWrapper&>(static_cast<const CdpeWrapper&>(mappedDpe));
}

CkelDataMapping::ShownDpe CkelDataMapping::shownStateOf(const CdpeWrapper& dpe) {
  if (!dpe.isValid()) {
    return {};
  }
  return {true,
          dpe.getTypeOfValueID(),
          dpe.getKELValueID(),
          dpe.getKELusrBit1ID(),
          dpe.getKELusrBit2ID(),
          dpe.getKELinvalidBit()};
}

void CkelDataMapping::showDpe() {
  const ShownDpe now = shownStateOf(getMappedDpe());
  const SmutexGuard guard(subscription.lock);
  shownDpe = now;
}

void CkelDataMapping::addValueToList(KelData& data, DpIdValueList& list) {
  if (!shownDpe.valid || (valueConverter == nullptr && !findConverter(data))) {
    return;
  }
  try {
    mostRecentKelQuality = data.getQuality();
    if (mostRecentKelQuality != noQuality) {
      list.append(shownDpe.value, valueConverter->getConverter().convert(kelTagName, data));
    }
    const int pvssQuality = TConv::convertKELToPVSSQuality(mostRecentKelQuality);
    list.append(shownDpe.usrBit1, new BitVar((pvssQuality & 1) != 0));
    list.append(shownDpe.usrBit2, new BitVar((pvssQuality & 2) != 0));
    badTypeConversion = false;
  } catch (...) {
    runtime::report(conversionFailed, fullKELAddress, getDPEName());
    badTypeConversion = true;
  }
}

bool CkelDataMapping::findConverter(KelData& data) {
  try {
    const int kelType = data.getValueType(kelTagName.empty() ? nullptr : kelTagName.c_str());
    if (kelType == missingField) {
      runtime::report(fieldMissing, fullKELAddress);
      throw BadTypeConversionException(CANTOBTAINTYPE);
    }
    valueConverter = TMap::findKelToDpeConverterFor(kelType, shownDpe.valueType);
    return true;
  } catch (const BadTypeConversionException& exception) {
    runtime::report(converterMissing, static_cast<int>(exception.reason()));
    badTypeConversion = true;
    return false;
  }
}

void CkelDataMapping::addValueValidityStatusToList(DpIdValueList& list) {
  if (!shownDpe.valid) {
    throw CdepException();
  }
  list.append(shownDpe.invalid, new BitVar(shouldDPEBeSetToInvalid()));
}

bool CkelDataMapping::shouldDPEBeSetToInvalid() const {
  return valueConverter == nullptr || !subscription.isConnectedToPublication() || badTypeConversion ||
         mostRecentKelQuality != goodQuality;
}

bool CkelDataMapping::dpeSubscriptionHasChanged() {
  CdpeWrapper& dpe = getMappedDpe();
  if (!dpe.revalidateDPE()) {
    return true;
  }
  return dpe.getKelAddress() != fullKELAddress || dpe.getTypeOfValueID() != dpeType;
}
