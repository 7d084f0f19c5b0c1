#include "kelPublicationManager.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <optional>
#include <string_view>

#include "KELClientManager.h"
#include "platformDependant.h"

namespace {

constexpr runtime::Report<const char*> groupNotBuilt{"kelPublicationManager", 38,
                                                     "Failed to create Publication group %s\n"};
constexpr runtime::Report<const char*> badlyFormatted{"kelPublicationManager", 66,
                                                      "Badly formated publication configuration \"%s\"\n"};

constexpr std::size_t loneDpeFields = 3;  ///< name, buffer time, one element without tag

bool isWellFormed(const std::vector<std::string>& fields) {
  const bool noneEmpty =
      std::none_of(fields.begin(), fields.end(), [](const std::string& field) { return field.empty(); });
  return noneEmpty && (fields.size() == loneDpeFields || (fields.size() > 3 && fields.size() % 2 == 0));
}

/// A decimal number; leading blanks and what follows it are tolerated.
std::optional<int> decimalNumber(const std::string& text) {
  errno = 0;
  char* end = nullptr;
  const long number = std::strtol(text.c_str(), &end, 10);
  if (end == text.c_str() || errno == ERANGE || number < std::numeric_limits<int>::min() ||
      number > std::numeric_limits<int>::max()) {
    return std::nullopt;
  }
  return static_cast<int>(number);
}

}  // namespace

CkelPublicationManager::Publications CkelPublicationManager::publications;

CkelPublicationManager::~CkelPublicationManager() = default;

void CkelPublicationManager::updateConfig(const DynVar* pubConfigurations) {
  for (const CharString& entry : textsOf(*pubConfigurations)) {
    std::vector<std::string> fields;
    extractStringsFromCompoundString(entry, fields);
    if (!isWellFormed(fields)) {
      runtime::report(badlyFormatted, entry);
      continue;
    }
    const CharString name(fields[0].c_str());
    if (publications.contains(&name)) {
      continue;
    }
    const std::optional<int> bufferTime_ms = decimalNumber(fields[1]);
    if (!bufferTime_ms) {
      runtime::report(badlyFormatted, entry);
      continue;
    }
    std::vector<std::unique_ptr<CdpeMappingTuple>> tuples;
    CvectorOfdpeMappingTuples mappingList;
    for (std::size_t i = 2; i < fields.size(); i += 2) {
      const bool tagged = i + 1 < fields.size();
      tuples.push_back(std::make_unique<CdpeMappingTuple>(CdpeMappingTuple{
          fields[i].c_str(), tagged ? CharString(fields[i + 1].c_str()) : CdpeMappingTuple::noTag}));
      mappingList.push_back(tuples.back().get());
    }
    makePublication(name, *bufferTime_ms, mappingList);
  }
}

bool CkelPublicationManager::makePublication(const CharString& name, int bufferTime_ms,
                                             const CvectorOfdpeMappingTuples& mappingList) {
  try {
    auto group = std::make_unique<CkelPubGroup>(name, bufferTime_ms, mappingList);
    publications[&group->getPubName()] = group.get();
    static_cast<void>(group.release());  // the map's now
    return true;
  } catch (const CPubGroupException&) {
    runtime::report(groupNotBuilt, name);
    return false;
  }
}

void CkelPublicationManager::extractStringsFromCompoundString(const CharString& compoundString,
                                                              std::vector<std::string>& strings) {
  const std::string_view text = static_cast<const char*>(compoundString);
  std::size_t start = 0;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const bool delimiter = text[i] == CkelClientManager::pubNameDelimiter[0];
    if (delimiter || i + 1 == text.size()) {
      strings.emplace_back(text.substr(start, i + (delimiter ? 0 : 1) - start));
      start = i + 1;
    }
  }
}
