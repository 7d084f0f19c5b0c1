#include "StoreSuite.h"

namespace storetest {

namespace {

// Written by somebody else and followed by every test, to know that all changes before it have arrived.
constexpr const char* markElement = "Suite.mark";

}  // namespace

std::string textOf(const DpVCItem& item) {
  CharString name;
  Manager::getLIName(item.getDpIdentifier(), name, DpIdentification::getDefaultSystem());
  std::string text = name.str() + "=";
  const Variable* const value = item.getValuePtr();
  if (value == nullptr) {
    return text + "-";
  }
  if (value->isA() == TIME_VAR) {
    return text + std::to_string(static_cast<const TimeVar*>(value)->getValue().toMilliseconds());
  }
  return text + pvss::valueText(*value);
}

void Listener::hotLinkCallBack(DpMsgAnswer& answer) {
  order.emplace_back("answer");
  answers.emplace_back();
  for (AnswerGroup* group = answer.getFirstGroup(); group != nullptr; group = answer.getNextGroup()) {
    for (const AnswerItem* item = group->getFirstItem(); item != nullptr; item = group->getNextItem()) {
      if (answers.back().empty() && item->getValuePtr() != nullptr) {
        newestValue = pvss::shareCopy(*item->getValuePtr());
      }
      answers.back().push_back(textOf(*item));
    }
  }
}

void Listener::hotLinkCallBack(DpHLGroup& group) {
  order.emplace_back("hotlink");
  hotLinks.emplace_back();
  for (const DpVCItem* item = group.getFirstItem(); item != nullptr; item = group.getNextItem()) {
    if (hotLinks.back().empty() && item->getValuePtr() != nullptr) {
      newestValue = pvss::shareCopy(*item->getValuePtr());
    }
    hotLinks.back().push_back(textOf(*item));
  }
}

void Reading::callBack(DpMsgAnswer& answer) {
  ++answers;
  for (AnswerGroup* group = answer.getFirstGroup(); group != nullptr; group = answer.getNextGroup()) {
    for (const AnswerItem* item = group->getFirstItem(); item != nullptr; item = group->getNextItem()) {
      items.push_back(textOf(*item));
      values.push_back(item->getValuePtr() == nullptr ? nullptr : pvss::shareCopy(*item->getValuePtr()));
    }
  }
}

StoreSuite::StoreSuite() : store(GetParam().make()) {
  store->define(markElement, DPELEMENT_INT);
}

StoreSuite::~StoreSuite() {
  manager.reset();
}

void StoreSuite::start() {
  manager = std::make_unique<Manager>(ManagerIdentifier(0, API_MAN, 7));
  manager->connectToData(3, nullptr, 0);
  until([] { return Manager::managerState == Manager::STATE_RUNNING; }, "the manager runs");
  manager->connectToEvent(0);
  connect(mark_, {markElement}, false);
}

void StoreSuite::dispatchOnce() {
  long sec = 0;
  long usec = 2000;
  Manager::dispatch(sec, usec);
}

void StoreSuite::until(const std::function<bool()>& condition, const char* what) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (!condition()) {
    ASSERT_LT(std::chrono::steady_clock::now(), end) << "waited in vain until " << what;
    dispatchOnce();
  }
}

void StoreSuite::settle() {
  until([] { return Manager::getCounters().pending == 0; }, "all writes are confirmed");
  const std::size_t before = mark_.hotLinks.size();
  write(markElement, IntegerVar(++marks_), 0);
  until([&] { return mark_.hotLinks.size() > before; }, "the mark arrives");
}

DpIdentifier StoreSuite::id(const std::string& name) {
  DpIdentifier found;
  EXPECT_TRUE(Manager::getId(name.c_str(), found)) << name;
  return found;
}

DpIdentList StoreSuite::ids(const std::vector<std::string>& names) {
  DpIdentList list;
  for (const std::string& name : names) {
    list.append(name.empty() ? DpIdentifier() : id(name));
  }
  return list;
}

void StoreSuite::connect(Listener& listener, const std::vector<std::string>& names, bool list) {
  if (list) {
    EXPECT_TRUE(Manager::dpConnect(ids(names), Manager::eventId, &listener, 0));
  } else {
    EXPECT_TRUE(Manager::dpConnect(ids(names)[0], Manager::eventId, &listener, 0));
  }
  const std::size_t before = listener.answers.size();
  until([&] { return listener.answers.size() > before; }, "the connect is answered");
}

std::vector<std::string> StoreSuite::read(const std::vector<std::string>& names) {
  Reading reading;
  EXPECT_TRUE(Manager::dpGet(ids(names), Manager::eventId, &reading, 0));
  until([&] { return reading.answers > 0; }, "the read is answered");
  EXPECT_EQ(reading.answers, 1);
  return reading.items;
}

void StoreSuite::set(const std::vector<std::pair<std::string, std::shared_ptr<const Variable>>>& values,
                     std::int64_t timeMs) {
  DpIdValueList list;
  for (const auto& [name, content] : values) {
    list.append(id(name), *content);
  }
  EXPECT_TRUE(
      Manager::dpSetTimed(TimeVar(PVSSTime::fromMilliseconds(timeMs)), list, Manager::eventId, nullptr, 1));
}

void StoreSuite::write(const std::string& name, const Variable& content, std::int64_t timeMs) {
  ElementWrite one;
  one.value = pvss::shareCopy(content);
  store->write({{name, one}}, timeMs);
}

}  // namespace storetest
