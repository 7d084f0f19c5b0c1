#include "PlantState.h"

#include <fmt/format.h>

#include "Command.h"

namespace kelgw {

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
