#include <yaml-cpp/yaml.h>

#include <algorithm>
#include <limits>
#include <map>
#include <unordered_map>
#include <unordered_set>

#include "basics/Values.h"
#include "pvss/DynVar.h"
#include "pvss/PlantFile.h"
#include "store/ValueCodec.h"

namespace pvss {

namespace {

int lineOf(const YAML::Node& node) {
  return node.Mark().line + 1;
}

// A text as it can be shown in one line.
std::string shown(std::string_view text) {
  std::string result;
  for (const char byte : text.substr(0, 120)) {
    result += static_cast<unsigned char>(byte) < 0x20 || byte == 0x7f ? '?' : byte;
  }
  return result + (text.size() > 120 ? "..." : "");
}

std::string quoted(std::string_view text) {
  return "'" + shown(text) + "'";
}

bool hasControl(std::string_view text) {
  return std::any_of(text.begin(), text.end(),
                     [](char byte) { return static_cast<unsigned char>(byte) < 0x20 || byte == 0x7f; });
}

// No Kel type reaches these.
bool isUnreachable(DpElementType type) {
  return type == DPELEMENT_CHAR || type == DPELEMENT_UINT || type == DPELEMENT_DYNCHAR ||
         type == DPELEMENT_DYNUINT;
}

class Parser {
 public:
  PlantFile parse(std::string_view text);

 private:
  void fail(const YAML::Node& where, std::string what) {
    plant_.errors.push_back({lineOf(where), std::move(what)});
  }
  bool isMap(const YAML::Node& node, const std::string& what);
  // The text of a scalar; false, and an error, when it is none.
  bool scalar(const YAML::Node& node, const std::string& what, std::string& text);
  // A scalar that names something; empty only if it may be.
  bool name(const YAML::Node& node, const std::string& what, bool mayBeEmpty, std::string& text);

  void takeElements(const YAML::Node& node);
  void takeElement(const YAML::Node& key, const YAML::Node& definition);
  void takeValue(const YAML::Node& node, PlantFile::Element& element);
  SharedValue parseScalarValue(DpElementType type, const YAML::Node& node, std::string& error);
  SharedValue parseArrayValue(DpElementType type, const YAML::Node& node, std::string& error);
  void takeLists(const YAML::Node& node);
  void takeList(const YAML::Node& node, const std::string& what, std::string& list);
  void takeSubscribe(const YAML::Node& node);
  void takePublish(const YAML::Node& node);
  void takePublication(const YAML::Node& key, const YAML::Node& definition);
  void takeBufferTime(const YAML::Node& node, PlantFile::Publication& publication);
  bool takeFields(const YAML::Node& key, const YAML::Node& node, const std::string& what,
                  std::vector<PlantFile::Field>& fields);
  void feed(const PlantFile::Field& field, const std::string& publication);
  PlantFile::Element* element(const PlantFile::Field& field);

  PlantFile plant_;
  std::unordered_map<std::string, std::size_t> positions_;  // of elements by name
};

bool Parser::isMap(const YAML::Node& node, const std::string& what) {
  if (node.IsMap()) {
    return true;
  }
  if (!node.IsNull()) {
    fail(node, what + " must be a list of \"name: ...\"");
  }
  return false;
}

bool Parser::scalar(const YAML::Node& node, const std::string& what, std::string& text) {
  if (node.IsNull()) {
    text.clear();  // `~` and nothing
    return true;
  }
  if (!node.IsScalar()) {
    fail(node, what + " must be a plain text");
    return false;
  }
  text = node.Scalar();
  return true;
}

bool Parser::name(const YAML::Node& node, const std::string& what, bool mayBeEmpty, std::string& text) {
  if (!scalar(node, what, text)) {
    return false;
  }
  if (text.empty() && !mayBeEmpty) {
    fail(node, "empty " + what);
    return false;
  }
  if (hasControl(text)) {
    fail(node, what + " " + quoted(text) + " has a control character");
    return false;
  }
  return true;
}

PlantFile Parser::parse(std::string_view text) {
  try {
    const YAML::Node root = YAML::Load(std::string(text));
    if (isMap(root, "a plant")) {
      // In the order of need, whatever their order in the file.
      std::map<std::string, YAML::Node> parts;
      for (const auto& part : root) {
        std::string key;
        if (!scalar(part.first, "a part of the plant", key)) {
          continue;
        }
        if (key != "elements" && key != "lists" && key != "subscribe" && key != "publish") {
          fail(part.first,
               "unknown part " + quoted(key) + ": it must be elements, lists, subscribe or publish");
        } else if (!parts.emplace(key, part.second).second) {
          fail(part.first, quoted(key) + " stands here twice");
        }
      }
      const auto take = [&](const char* key, void (Parser::*taker)(const YAML::Node&)) {
        if (const auto found = parts.find(key); found != parts.end() && isMap(found->second, key)) {
          (this->*taker)(found->second);
        }
      };
      take("elements", &Parser::takeElements);
      take("lists", &Parser::takeLists);
      take("subscribe", &Parser::takeSubscribe);
      take("publish", &Parser::takePublish);
    }
  } catch (const YAML::Exception& problem) {
    plant_.errors.push_back(
        {problem.mark.is_null() ? 0 : problem.mark.line + 1, "not YAML: " + shown(problem.msg)});
  }
  std::stable_sort(
      plant_.errors.begin(), plant_.errors.end(),
      [](const PlantFile::Error& left, const PlantFile::Error& right) { return left.line < right.line; });
  return std::move(plant_);
}

void Parser::takeElements(const YAML::Node& node) {
  for (const auto& item : node) {
    takeElement(item.first, item.second);
  }
}

void Parser::takeElement(const YAML::Node& key, const YAML::Node& definition) {
  PlantFile::Element element;
  element.line = lineOf(key);
  if (!name(key, "element name", false, element.name)) {
    return;
  }
  if (element.name.find(':') != std::string::npos) {
    fail(key, "element name " + quoted(element.name) + " has a ':'");
    return;
  }
  if (positions_.contains(element.name)) {
    fail(key, "element " + quoted(element.name) + " is defined twice");
    return;
  }
  YAML::Node type = definition;
  YAML::Node value;
  bool hasValue = false;
  bool hasType = !definition.IsMap();
  if (definition.IsMap()) {
    for (const auto& item : definition) {
      std::string word;
      if (!scalar(item.first, "a property of " + quoted(element.name), word)) {
        return;
      }
      bool& has = word == "type" ? hasType : hasValue;
      if (word != "type" && word != "value") {
        fail(item.first, "element " + quoted(element.name) + ": unknown property " + quoted(word) +
                             ": it must be type or value");
      } else if (has) {
        fail(item.first, "element " + quoted(element.name) + ": " + word + " stands here twice");
      } else {
        has = true;
        (word == "type" ? type : value).reset(item.second);
      }
    }
  }
  std::string word;
  if (!hasType) {
    fail(key, "element " + quoted(element.name) + " has no type");
  } else if (scalar(type, "the type of " + quoted(element.name), word)) {
    element.type = typeOfWord(word);
    if (element.type == DPELEMENT_NOELEMENT) {
      fail(
          type,
          "element " + quoted(element.name) + ": unknown type " + quoted(word) +
              ": it must be bit, char, int, uint, bit32, float or text, or one of these with dyn_ before it");
    } else if (hasValue) {
      takeValue(value, element);
    }
  }
  positions_.emplace(element.name, plant_.elements.size());
  plant_.elements.push_back(std::move(element));
}

void Parser::takeValue(const YAML::Node& node, PlantFile::Element& element) {
  std::string error;
  const bool array = DynVar::elementTypeOf(variableTypeOf(element.type)) != NOTYPE_VAR;
  element.value =
      array ? parseArrayValue(element.type, node, error) : parseScalarValue(element.type, node, error);
  if (!element.value) {
    fail(node, "element " + quoted(element.name) + ": " + error);
  }
}

SharedValue Parser::parseScalarValue(DpElementType type, const YAML::Node& node, std::string& error) {
  if (!node.IsScalar()) {
    error = "a value of type " + std::string(typeWord(type)) + " must be a single one";
    return nullptr;
  }
  std::string text = node.Scalar();
  if (type == DPELEMENT_BIT && (text == "true" || text == "false")) {
    text = text == "true" ? "1" : "0";
  }
  if (type == DPELEMENT_FLOAT && (text == ".nan" || text == ".inf" || text == "-.inf")) {
    text.erase(text.find('.'), 1);
  }
  if (type == DPELEMENT_CHAR && text.size() == 1 && (text[0] < '0' || text[0] > '9')) {
    text = std::to_string(static_cast<unsigned>(static_cast<unsigned char>(text[0])));
  }
  return parseValueText(type, text, error);
}

SharedValue Parser::parseArrayValue(DpElementType type, const YAML::Node& node, std::string& error) {
  const VariableType elementType = DynVar::elementTypeOf(variableTypeOf(type));
  auto array = std::make_shared<DynVar>(elementType);
  if (!node.IsSequence()) {
    error = "a value of type " + std::string(typeWord(type)) + " must be a list, [ ... ]";
    return nullptr;
  }
  const DpElementType single = typeOfWord(typeWord(type).substr(4));
  for (const auto& item : node) {
    const SharedValue value = parseScalarValue(single, item, error);
    if (!value) {
      return nullptr;
    }
    array->append(*value);
  }
  return array;
}

void Parser::takeLists(const YAML::Node& node) {
  for (const auto& item : node) {
    std::string which;
    if (!scalar(item.first, "a list", which)) {
      continue;
    }
    std::string& list = which == "clients" ? plant_.clientList : plant_.publicationList;
    if (which != "clients" && which != "publications") {
      fail(item.first, "unknown list " + quoted(which) + ": it must be clients or publications");
    } else if (!list.empty()) {
      fail(item.first, "list " + quoted(which) + " stands here twice");
    } else {
      takeList(item.second, which, list);
    }
  }
}

void Parser::takeList(const YAML::Node& node, const std::string& what, std::string& list) {
  std::string text;
  if (!name(node, "name of the element of list '" + what + "'", false, text)) {
    return;
  }
  if (text == plant_.clientList || text == plant_.publicationList) {
    fail(node, "element " + quoted(text) + " cannot hold both lists");
    return;
  }
  list = text;
  const auto found = positions_.find(text);
  if (found == positions_.end()) {
    if (text.find(':') != std::string::npos) {
      fail(node, "element name " + quoted(text) + " has a ':'");
      return;
    }
    PlantFile::Element element;
    element.name = text;
    element.type = DPELEMENT_DYNTEXT;
    element.line = lineOf(node);
    positions_.emplace(text, plant_.elements.size());
    plant_.elements.push_back(std::move(element));
    return;
  }
  const PlantFile::Element& element = plant_.elements[found->second];
  if (element.type != DPELEMENT_DYNTEXT && element.type != DPELEMENT_NOELEMENT) {
    fail(node,
         "list element " + quoted(text) + " must be dyn_text, it is " + std::string(typeWord(element.type)));
  } else if (element.value) {
    fail(node, "list element " + quoted(text) + " cannot have a value of its own");
  }
}

bool Parser::takeFields(const YAML::Node& key, const YAML::Node& node, const std::string& what,
                        std::vector<PlantFile::Field>& fields) {
  if (!node.IsMap() || node.size() == 0) {
    fail(key, what + " needs fields: \"tag: element\"");
    return false;
  }
  std::unordered_set<std::string> tags;
  for (const auto& item : node) {
    PlantFile::Field field;
    field.line = lineOf(item.first);
    if (!name(item.first, "tag", true, field.tag) ||
        !name(item.second, "element name", false, field.element)) {
      continue;
    }
    if (!tags.insert(field.tag).second) {
      fail(item.first, what + ": tag " + quoted(field.tag) + " stands here twice");
      continue;
    }
    fields.push_back(std::move(field));
  }
  return true;
}

PlantFile::Element* Parser::element(const PlantFile::Field& field) {
  const auto found = positions_.find(field.element);
  if (found == positions_.end()) {
    plant_.errors.push_back({field.line, "there is no element " + quoted(field.element)});
    return nullptr;
  }
  return &plant_.elements[found->second];
}

void Parser::feed(const PlantFile::Field& field, const std::string& publication) {
  PlantFile::Element* const fed = element(field);
  if (fed == nullptr) {
    return;
  }
  const auto refuse = [&](const std::string& what) {
    plant_.errors.push_back({field.line, "element " + quoted(fed->name) + " " + what});
  };
  if (fed->isFed()) {
    refuse("is fed from two places, also from publication " + quoted(fed->publication) + " tag " +
           quoted(fed->tag));
  } else if (isUnreachable(fed->type)) {
    refuse("cannot be fed: no Kel type reaches " + std::string(typeWord(fed->type)));
  } else if (fed->name == plant_.clientList || fed->name == plant_.publicationList) {
    refuse("cannot be fed: it holds a list of the gateway");
  } else {
    fed->publication = publication;
    fed->tag = field.tag;
  }
}

void Parser::takeSubscribe(const YAML::Node& node) {
  std::unordered_set<std::string> names;
  for (const auto& item : node) {
    PlantFile::Subscription subscription;
    subscription.line = lineOf(item.first);
    if (!name(item.first, "publication name", false, subscription.publication)) {
      continue;
    }
    if (!names.insert(subscription.publication).second) {
      fail(item.first, "publication " + quoted(subscription.publication) + " is subscribed to twice");
      continue;
    }
    if (!takeFields(item.first, item.second, "publication " + quoted(subscription.publication),
                    subscription.fields)) {
      continue;
    }
    for (const PlantFile::Field& field : subscription.fields) {
      feed(field, subscription.publication);
    }
    plant_.subscribe.push_back(std::move(subscription));
  }
}

void Parser::takePublish(const YAML::Node& node) {
  for (const auto& item : node) {
    takePublication(item.first, item.second);
  }
}

void Parser::takePublication(const YAML::Node& key, const YAML::Node& definition) {
  PlantFile::Publication publication;
  publication.line = lineOf(key);
  if (!name(key, "publication name", false, publication.name)) {
    return;
  }
  const std::string what = "publication " + quoted(publication.name);
  if (std::any_of(plant_.publish.begin(), plant_.publish.end(),
                  [&](const PlantFile::Publication& other) { return other.name == publication.name; })) {
    fail(key, what + " is defined twice");
    return;
  }
  YAML::Node fields;
  std::unordered_set<std::string> seen;
  if (definition.IsMap()) {
    for (const auto& item : definition) {
      std::string word;
      if (!scalar(item.first, "a property of " + what, word)) {
        continue;
      }
      if (!seen.insert(word).second) {
        fail(item.first, what + ": " + quoted(word) + " stands here twice");
      } else if (word == "bufferTime") {
        takeBufferTime(item.second, publication);
      } else if (word == "fields") {
        fields.reset(item.second);
      } else {
        fail(item.first, what + ": unknown property " + quoted(word) + ": it must be bufferTime or fields");
      }
    }
  }
  if (!seen.contains("fields")) {
    fail(key, what + " has no fields");
  } else if (takeFields(key, fields, what, publication.fields)) {
    std::unordered_set<std::string> elements;
    for (const PlantFile::Field& field : publication.fields) {
      if (element(field) != nullptr && !elements.insert(field.element).second) {
        plant_.errors.push_back(
            {field.line, what + ": element " + quoted(field.element) + " stands here twice"});
      }
      if (field.tag.empty() && publication.fields.size() > 1) {
        plant_.errors.push_back({field.line, what + ": an empty tag must be the only one"});
      }
    }
  }
  plant_.publish.push_back(std::move(publication));
}

void Parser::takeBufferTime(const YAML::Node& node, PlantFile::Publication& publication) {
  const std::string what = "publication " + quoted(publication.name) + ": bufferTime ";
  std::string text;
  if (!scalar(node, what, text)) {
    return;
  }
  std::string error;
  const SharedValue value = parseValueText(DPELEMENT_INT, text, error);
  if (!value) {
    fail(node, what + error);
    return;
  }
  publication.bufferTimeMs = static_cast<const IntegerVar&>(*value).getValue();
  if (publication.bufferTimeMs < 0) {
    fail(node, what + "cannot be negative");
  }
}

}  // namespace

PlantFile PlantFile::parse(std::string_view text) {
  return Parser().parse(text);
}

}  // namespace pvss
