// PVSS_KEL_TypeMap: which Kel field type goes into which element type, which way, and by which converter.
//
// Purpose    The one place where Kel type ids, accepted element types and the mapping of quality are fixed.
// Ownership  Converters and table entries belong to the registry and live until the process ends.
// Thread     The tables are complete before the first look-up, whoever makes it and when; afterwards they are
//            only read. Converters have no state. Any thread.
// Errors     BadTypeConversionException with its reason.
#pragma once

#include <kel/KelData.h>
#include <pvss/CharString.h>
#include <pvss/Variable.h>

#include <map>
#include <string>
#include <vector>

enum Ereason {
  BADTYPE = 0,          ///< a value that is missing or of the wrong variable type
  UNSUPPORTEDTYPE = 1,  ///< no entry for the types, or a quality outside the table
  CANTOBTAINTYPE = 2,   ///< the record has no such field
};

class BadTypeConversionException {
 public:
  explicit BadTypeConversionException(Ereason reasonGiven) : why(reasonGiven) {}
  [[nodiscard]] Ereason reason() const { return why; }

 private:
  const Ereason why;
};

/// A wrapper was asked for what only a valid one has.
class CdepException {};

/// Makes one field of a record into a new value of a data point element.
class CkelToPVSSTypeConverter {
 public:
  virtual ~CkelToPVSSTypeConverter() = default;
  /// The caller owns the result. An empty tag means the record's unnamed value. What the record throws for a
  /// missing field or another type passes through.
  [[nodiscard]] virtual VariablePtr convert(const std::string& tag, KelData& data) const = 0;
};

/// Writes the value of a data point element into one field of a record.
class CpvssToKelTypeConverter {
 public:
  virtual ~CpvssToKelTypeConverter() = default;
  /// Throws BadTypeConversionException(BADTYPE) for no value, or an array of another type.
  virtual void convert(KelData& data, Variable* value, const CharString& tag) const = 0;
};

/// One supported pair of Kel type and element type.
class TConv {
 public:
  TConv(int kelType, int dpeType, const CkelToPVSSTypeConverter& pairConverter)
      : KELtypeID(kelType), DPEtypeID(dpeType), converter(pairConverter) {}

  [[nodiscard]] bool willConvert(int kelType, int dpeType) const {
    return kelType == KELtypeID && dpeType == DPEtypeID;
  }
  [[nodiscard]] const CkelToPVSSTypeConverter& getConverter() const { return converter; }

  /// 1 gives 3, 2 gives 1, 0 and -1 give 0; anything else throws UNSUPPORTEDTYPE.
  [[nodiscard]] static int convertKELToPVSSQuality(int kelQuality);

 private:
  const int KELtypeID;
  const int DPEtypeID;
  const CkelToPVSSTypeConverter& converter;
};

/// The registry. Only the first object fills the tables.
class TMap {
 public:
  TMap();

  /// Throws UNSUPPORTEDTYPE when the pair is not supported.
  [[nodiscard]] static TConv* findKelToDpeConverterFor(int kelType, int dpeType);
  /// Throws UNSUPPORTEDTYPE when the element type is not supported. Never null.
  [[nodiscard]] static CpvssToKelTypeConverter* findDpeToKelConverterFor(int dpeType);

  /// The tables, for whoever looks through them after static initialisation.
  static const std::vector<TConv*>& kelToPvsstypeConverterList;
  static const std::map<int, CpvssToKelTypeConverter*>& pvssToKelTypeConverterMap;
};
