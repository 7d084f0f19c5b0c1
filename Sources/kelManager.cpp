#include "kelManager.h"

#include <pvss/TextVar.h>

#include "platformDependant.h"

namespace {

constexpr runtime::Report<> answerWithoutList{
    "kelManager", 26, "ConfigListChangeListener::callBack - client list is missing\n"};
constexpr runtime::Report<> hotLinkWithoutList{
    "kelManager", 43, "ConfigListChangeListener::hotLinkCallBack - client list is missing\n"};

/// Hands an item's value to the side, or reports that there is none. The element may be of any type: what is
/// no list of texts holds none.
void handOver(CkelManager& manager, const Variable* value, const runtime::Report<>& missing) {
  if (value == nullptr) {
    runtime::report(missing);
  } else if (value->isA() == DYNTEXT_VAR) {
    manager.updateConfig(static_cast<const DynVar*>(value));
  } else {
    const DynVar noTexts(TEXT_VAR);
    manager.updateConfig(&noTexts);
  }
}

}  // namespace

void ConfigListChangeListener::hotLinkCallBack(DpMsgAnswer& answer) {
  for (auto* group = answer.getFirstGroup(); group != nullptr; group = answer.getNextGroup()) {
    for (auto* item = group->getFirstItem(); item != nullptr; item = group->getNextItem()) {
      handOver(manager, item->getValuePtr(), answerWithoutList);
    }
  }
}

void ConfigListChangeListener::hotLinkCallBack(DpHLGroup& group) {
  for (auto* item = group.getFirstItem(); item != nullptr; item = group.getNextItem()) {
    handOver(manager, item->getValuePtr(), hotLinkWithoutList);
  }
}

std::vector<CharString> textsOf(const DynVar& list) {
  std::vector<CharString> texts;
  if (list.isA() != DYNTEXT_VAR) {
    return texts;  // an array of something else, or no array at all: it holds no texts
  }
  for (const Variable* item = list.getFirstVar(); item != nullptr; item = list.getNextVar()) {
    texts.emplace_back(static_cast<const TextVar*>(item)->getValue());
  }
  return texts;
}
