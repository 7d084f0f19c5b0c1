#include "AnswerCallBackHandler.h"

#include "platformDependant.h"

namespace {

constexpr runtime::Report<> itemWithoutValue{"AnswerCallBackHandler", 17, "var is null\n"};

}  // namespace

void CdpGetCallBackHandler::callBack(DpMsgAnswer& answer) {
  for (auto* group = answer.getFirstGroup(); group != nullptr; group = answer.getNextGroup()) {
    for (auto* item = group->getFirstItem(); item != nullptr; item = group->getNextItem()) {
      if (const Variable* const value = item->getValuePtr(); value != nullptr) {
        responseList.append(item->getDpIdentifier(), *value);
        ++numAnswers;
      } else {
        runtime::report(itemWithoutValue);
      }
    }
  }
}
