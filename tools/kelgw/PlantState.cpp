#include "PlantState.h"

#include <fmt/format.h>
#include <kel/KelNames.h>

#include <algorithm>

#include "Command.h"
#include "Datum.h"

namespace kelgw {
namespace {

/// The name for a line of text: what is longer than a line is cut, and its length is said.
std::string shownName(const std::string& name) {
  constexpr std::size_t longest = 60;
  if (name.size() <= longest) {
    return fmt::format("\"{}\"", escapeText(name));
  }
  return fmt::format("\"{}...\" ({} bytes)", escapeText(name.substr(0, longest)), name.size());
}

pvss::PlantFile withNameFaults(pvss::PlantFile plant) {
  const auto look = [&plant](const std::string& name, int line) {
    if (const std::string fault = KelNames::faultOfPublication(name); !fault.empty()) {
      plant.errors.push_back({line, fmt::format("publication {} cannot be: {}", shownName(name), fault)});
    }
  };
  for (const pvss::PlantFile::Subscription& subscription : plant.subscribe) {
    look(subscription.publication, subscription.line);
  }
  for (const pvss::PlantFile::Publication& publication : plant.publish) {
    look(publication.name, publication.line);
  }
  std::stable_sort(plant.errors.begin(), plant.errors.end(),
                   [](const auto& one, const auto& other) { return one.line < other.line; });
  return plant;
}

}  // namespace

pvss::PlantFile parsePlant(std::string_view text) {
  return withNameFaults(pvss::PlantFile::parse(text));
}

pvss::PlantFile readPlant(const std::string& path) {
  return withNameFaults(pvss::PlantFile::read(path));
}

void showPlantErrors(const pvss::PlantFile& plant, const std::string& path, Context& context) {
  if (context.out.json()) {
    Json::Array errors;
    for (const pvss::PlantFile::Error& error : plant.errors) {
      errors.push_back(Json::Object{{"line", Json(error.line)}, {"what", Json(error.what)}});
    }
    context.out.document(Json::Object{
        {"file", Json(path)}, {"ok", Json(plant.errors.empty())}, {"errors", Json(std::move(errors))}});
  }
  for (const pvss::PlantFile::Error& error : plant.errors) {
    context.out.remark(error.line > 0 ? fmt::format("{}:{}: {}", path, error.line, error.what)
                                      : fmt::format("{}: {}", path, error.what));
  }
}

WantedState wantedStateOf(const pvss::PlantFile& plant) {
  WantedState wanted;
  for (const pvss::PlantFile::Element& element : plant.elements) {
    pvss::StoreElement entry;
    entry.name = element.name;
    entry.type = element.type;
    if (element.isFed()) {
      entry.addressType = pvss::PlantFile::addressType;
      entry.driver = pvss::PlantFile::driver;
      entry.reference = element.reference();
    }
    wanted.elements.push_back(std::move(entry));
    if (element.value) {
      wanted.values.emplace_back(element.name, element.value);
    }
  }
  wanted.clientList = plant.clientList;
  wanted.clients = plant.clientTexts();
  wanted.publicationList = plant.publicationList;
  wanted.publications = plant.publicationTexts();
  return wanted;
}

}  // namespace kelgw
