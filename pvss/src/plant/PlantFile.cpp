#include "pvss/PlantFile.h"

#include <algorithm>
#include <cstring>

#include "basics/Values.h"
#include "config/ReadFile.h"
#include "pvss/DynVar.h"

namespace pvss {

std::string PlantFile::Element::reference() const {
  if (publication.empty()) {
    return {};
  }
  return tag.empty() ? publication : publication + separator + tag;
}

std::string PlantFile::Publication::listText() const {
  std::string text = name + separator + std::to_string(bufferTimeMs);
  for (const Field& field : fields) {
    text += separator + field.element;
    if (!(fields.size() == 1 && field.tag.empty())) {
      text += separator + field.tag;
    }
  }
  return text;
}

std::vector<std::string> PlantFile::clientTexts() const {
  std::vector<std::string> texts;
  for (const Subscription& subscription : subscribe) {
    for (const Field& field : subscription.fields) {
      texts.push_back(field.element);
    }
  }
  return texts;
}

std::vector<std::string> PlantFile::publicationTexts() const {
  std::vector<std::string> texts;
  texts.reserve(publish.size());
  for (const Publication& publication : publish) {
    texts.push_back(publication.listText());
  }
  return texts;
}

const PlantFile::Element* PlantFile::find(std::string_view name) const {
  const auto found = std::find_if(elements.begin(), elements.end(),
                                  [name](const Element& element) { return element.name == name; });
  return found == elements.end() ? nullptr : &*found;
}

std::string PlantFile::errorText(std::string_view file) const {
  std::string text;
  for (const Error& error : errors) {
    text += text.empty() ? "" : "\n";
    text += file;
    text += error.line > 0 ? ":" + std::to_string(error.line) : "";
    text += ": " + error.what;
  }
  return text;
}

PlantFile PlantFile::read(const std::string& path) {
  errno = 0;
  std::string text;
  if (const int reason = readFile(path, text); reason != 0) {
    PlantFile plant;
    plant.errors.push_back({0, std::strerror(reason)});
    return plant;
  }
  return parse(text);
}

std::shared_ptr<const Variable> makeTexts(const std::vector<std::string>& texts) {
  auto array = std::make_shared<DynVar>(TEXT_VAR);
  array->reserve(texts.size());
  for (const std::string& text : texts) {
    array->append(TextVar(CharString(text)));
  }
  return array;
}

std::string_view plantTypeWord(DpElementType type) {
  return typeWord(type);
}

DpElementType plantTypeOf(std::string_view word) {
  return typeOfWord(word);
}

}  // namespace pvss
