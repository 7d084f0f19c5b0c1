#include "pvss/testing/MemoryPlant.h"

#include <stdexcept>
#include <utility>

#include "basics/Values.h"
#include "core/Catalogue.h"
#include "pvss/Manager.h"
#include "pvss/PlantFile.h"
#include "pvss/WaitForAnswer.h"
#include "store/StoreFactory.h"
#include "store/memory/MemoryDatabase.h"
#include "testing/Observers.h"

namespace pvss::testing {

ManagerObserver*& currentObserver() noexcept {
  static ManagerObserver* observer = nullptr;
  return observer;
}

struct MemoryPlant::Recorder final : ManagerObserver {
  bool recording = true;
  ManagerObserver* further = nullptr;
  std::vector<RecordedWrite> writes;
  std::vector<RecordedRequest> connects;
  std::vector<RecordedRequest> gets;

  static std::string nameOf(const DpIdentifier& id) {
    CharString name;
    Manager::getLIName(id, name, DpIdentification::getDefaultSystem());
    return name.str();
  }

  static RecordedRequest request(const DpIdentList& ids, WaitForAnswer* answer, unsigned int flags) {
    RecordedRequest record;
    for (const DpIdentifier& id : ids) {
      record.ids.push_back(id);
      record.names.push_back(nameOf(id));
    }
    record.answer = answer;
    record.flags = flags;
    return record;
  }

  void onRegister(const ManagerIdentifier& identifier) override {
    if (further != nullptr) {
      further->onRegister(identifier);
    }
  }
  void onConnectToData(unsigned char flags, unsigned int count) override {
    if (further != nullptr) {
      further->onConnectToData(flags, count);
    }
  }
  void onConnectToEvent(unsigned int flags) override {
    if (further != nullptr) {
      further->onConnectToEvent(flags);
    }
  }
  void onGetId(const char* name, bool found) override {
    if (further != nullptr) {
      further->onGetId(name, found);
    }
  }
  void onDpConnect(const DpIdentList& ids, WaitForAnswer* answer, unsigned int flags) override {
    if (recording) {
      connects.push_back(request(ids, answer, flags));
    }
    if (further != nullptr) {
      further->onDpConnect(ids, answer, flags);
    }
  }
  void onDpGet(const DpIdentList& ids, WaitForAnswer* answer, unsigned int flags) override {
    if (recording) {
      gets.push_back(request(ids, answer, flags));
    }
    if (further != nullptr) {
      further->onDpGet(ids, answer, flags);
    }
  }
  void onDpSetTimed(const TimeVar& time, const DpIdValueList& values, unsigned int flags) override {
    if (recording) {
      RecordedWrite record;
      record.timeMs = time.getValue().toMilliseconds();
      record.flags = flags;
      for (const DpVCItem& item : values) {
        const Variable* const value = item.getValuePtr();
        record.items.push_back({item.getDpIdentifier(), nameOf(item.getDpIdentifier()),
                                value == nullptr ? nullptr : shareCopy(*value)});
      }
      writes.push_back(std::move(record));
    }
    if (further != nullptr) {
      further->onDpSetTimed(time, values, flags);
    }
  }
  void onDispatch(long sec, long usec) override {
    if (further != nullptr) {
      further->onDispatch(sec, usec);
    }
  }
};

namespace {

MemoryDatabase::Index existing(const MemoryDatabase& database, const std::string& name) {
  const MemoryDatabase::Index index = database.find(name);
  if (index == MemoryDatabase::none || database.at(index).entry.type == DPELEMENT_NOELEMENT) {
    throw std::invalid_argument("no such element: " + name);
  }
  return index;
}

std::int64_t timeOr(std::optional<std::int64_t> timeMs) {
  return timeMs.value_or(PVSSTime().toMilliseconds());
}

std::vector<ElementAttributes> attributesOf(
    const MemoryDatabase& database, const std::vector<std::pair<std::string, ElementWrite>>& elements) {
  std::vector<ElementAttributes> list;
  for (const auto& [name, write] : elements) {
    ElementAttributes attributes;
    attributes.element = existing(database, name);
    unsigned mask = 0;
    if (write.value) {
      if (write.value->isA() != variableTypeOf(database.at(attributes.element).entry.type)) {
        throw std::invalid_argument("the value does not fit the type of " + name);
      }
      mask |= attributeValue | attributeInvalid;
      attributes.value = write.value;
      attributes.invalid = false;
    }
    if (write.invalid) {
      mask |= attributeInvalid;
      attributes.invalid = *write.invalid;
    }
    if (write.userBit1) {
      mask |= attributeUserBit1;
      attributes.userBit1 = *write.userBit1;
    }
    if (write.userBit2) {
      mask |= attributeUserBit2;
      attributes.userBit2 = *write.userBit2;
    }
    attributes.mask = static_cast<std::uint8_t>(mask);
    list.push_back(std::move(attributes));
  }
  return list;
}

void setDisabled(MemoryDatabase& database, const std::string& attribute, bool off) {
  const SplitName split = splitName(attribute);
  if (split.attribute == AttributeCode::none) {
    throw std::invalid_argument("no such attribute: " + attribute);
  }
  CatalogueEntry entry = database.at(existing(database, std::string(split.element))).entry;
  const std::uint32_t bit = disabledBit(split.attribute);
  entry.disabled = off ? entry.disabled | bit : entry.disabled & ~bit;
  database.define(std::move(entry));
}

}  // namespace

MemoryPlant::MemoryPlant(const std::string& plantText)
    : database_(std::make_shared<MemoryDatabase>()), recorder_(std::make_unique<Recorder>()) {
  if (testDatabase()) {
    throw std::logic_error("there is a MemoryPlant already");
  }
  const PlantFile plant = PlantFile::parse(plantText);
  if (!plant.errors.empty()) {
    throw std::invalid_argument(plant.errorText("plant"));
  }
  database_->keepHistory = true;
  database_->load(plant);
  testDatabase() = database_;
  currentObserver() = recorder_.get();
}

MemoryPlant::~MemoryPlant() {
  testDatabase().reset();
  currentObserver() = nullptr;
}

void MemoryPlant::addElement(const std::string& name, DpElementType type) {
  CatalogueEntry entry;
  entry.name = name;
  entry.type = type;
  database_->define(std::move(entry));
}

void MemoryPlant::removeElement(const std::string& name) {
  existing(*database_, name);
  addElement(name, DPELEMENT_NOELEMENT);
}

void MemoryPlant::setAddress(const std::string& name, int type, const std::string& driver,
                             const std::string& reference) {
  CatalogueEntry entry = database_->at(existing(*database_, name)).entry;
  entry.addressType = type;
  entry.driver = driver;
  entry.reference = reference;
  database_->define(std::move(entry));
}

void MemoryPlant::switchOff(const std::string& attribute) {
  setDisabled(*database_, attribute, true);
}

void MemoryPlant::switchOn(const std::string& attribute) {
  setDisabled(*database_, attribute, false);
}

void MemoryPlant::write(const std::string& name, const Variable& value, std::optional<std::int64_t> timeMs) {
  ElementWrite write;
  write.value = shareCopy(value);
  this->write({{name, std::move(write)}}, timeOr(timeMs));
}

void MemoryPlant::writeInvalid(const std::string& name, bool invalid, std::optional<std::int64_t> timeMs) {
  ElementWrite write;
  write.invalid = invalid;
  this->write({{name, std::move(write)}}, timeOr(timeMs));
}

void MemoryPlant::write(const std::vector<std::pair<std::string, ElementWrite>>& elements,
                        std::int64_t timeMs) {
  database_->applyForeign(timeMs, attributesOf(*database_, elements));
}

void MemoryPlant::writeTexts(const std::string& name, const std::vector<std::string>& texts,
                             std::optional<std::int64_t> timeMs) {
  write(name, *makeTexts(texts), timeMs);
}

ElementView MemoryPlant::read(const std::string& name) const {
  const MemoryDatabase::Element& element = database_->at(existing(*database_, name));
  ElementView view;
  view.type = element.entry.type;
  view.value = element.state.attributes.value ? element.state.attributes.value : defaultValue(view.type);
  view.invalid = element.state.attributes.invalid;
  view.userBit1 = element.state.attributes.userBit1;
  view.userBit2 = element.state.attributes.userBit2;
  view.valueTimeMs = element.state.valueTimeMs;
  view.invalidTimeMs = element.state.invalidTimeMs;
  view.writes = element.writes;
  return view;
}

const std::vector<RecordedWrite>& MemoryPlant::writes() const {
  return recorder_->writes;
}
const std::vector<RecordedRequest>& MemoryPlant::connects() const {
  return recorder_->connects;
}
const std::vector<RecordedRequest>& MemoryPlant::gets() const {
  return recorder_->gets;
}

void MemoryPlant::clearRecords() {
  recorder_->writes.clear();
  recorder_->connects.clear();
  recorder_->gets.clear();
}

void MemoryPlant::setRecording(bool on) {
  recorder_->recording = on;
  database_->keepHistory = on;
}

void MemoryPlant::observe(ManagerObserver* observer) {
  recorder_->further = observer;
}

void MemoryPlant::setLinkUp(bool up) {
  database_->linkUp = up;
}
void MemoryPlant::holdWrites(bool on) {
  database_->holdWrites = on;
}
void MemoryPlant::holdConfirmations(bool on) {
  database_->holdConfirmations = on;
}
void MemoryPlant::holdSnapshots(bool on) {
  database_->holdSnapshots = on;
}
void MemoryPlant::setWindow(std::size_t batches) {
  database_->window = batches;
}
void MemoryPlant::loseNewest(std::size_t changes) {
  database_->loseNewest(changes);
}
void MemoryPlant::holdLease(const std::string& holder) {
  database_->leaseHolder = holder;
}
void MemoryPlant::failLinkInNextWrite() {
  database_->failLinkInNextWrite = true;
}

void MemoryPlant::fenceNextWrite() {
  database_->fenceNext = true;
}

void MemoryPlant::gapDuring(const std::vector<std::pair<std::string, ElementWrite>>& missed,
                            std::int64_t timeMs) {
  database_->applyForeign(timeMs, attributesOf(*database_, missed), true);
  database_->events.emplace_back(MemoryDatabase::Gap{});
}

std::vector<std::pair<std::string, std::string>> MemoryPlant::lastBeat() const {
  return database_->lastBeat;
}

}  // namespace pvss::testing
