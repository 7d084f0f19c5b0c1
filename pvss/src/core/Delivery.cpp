#include "core/Delivery.h"

#include "pvss/BitVar.h"
#include "pvss/DpHLGroup.h"
#include "pvss/DpMsg.h"
#include "pvss/DpMsgAnswer.h"
#include "pvss/HotLinkWaitForAnswer.h"
#include "pvss/IntegerVar.h"
#include "pvss/TextVar.h"
#include "pvss/TimeVar.h"

namespace pvss {

namespace {

VariablePtr makeVariable(const CapturedItem& item) {
  switch (item.kind) {
    case CapturedItem::Kind::bit:
      return new BitVar(item.number != 0);
    case CapturedItem::Kind::number:
      return new IntegerVar(static_cast<std::int32_t>(item.number));
    case CapturedItem::Kind::moment:
      return new TimeVar(PVSSTime::fromMilliseconds(item.number));
    case CapturedItem::Kind::value:
      return item.value->clone();
    case CapturedItem::Kind::missing:
      break;
  }
  return nullptr;
}

CapturedItem make(const DpIdentifier& id, CapturedItem::Kind kind, std::int64_t number) {
  CapturedItem item;
  item.id = id;
  item.kind = kind;
  item.number = number;
  return item;
}

CapturedItem makeText(const DpIdentifier& id, const std::string& text) {
  CapturedItem item;
  item.id = id;
  item.kind = CapturedItem::Kind::value;
  item.value = std::make_shared<const TextVar>(CharString(text));
  return item;
}

}  // namespace

CapturedItem captureAddress(const DpIdentifier& id, const Catalogue& catalogue) {
  const Catalogue::Element& element = catalogue.at(id.getEl());
  switch (attributeOf(id)) {
    case AttributeCode::addressType:
      return make(id, CapturedItem::Kind::number, element.addressType);
    case AttributeCode::addressDriver:
      return makeText(id, element.driver);
    case AttributeCode::addressReference:
      return makeText(id, element.reference);
    default:
      return make(id, CapturedItem::Kind::missing, 0);
  }
}

CapturedItem captureState(const DpIdentifier& id, const ElementState& state, const Catalogue& catalogue,
                          Standing standing) {
  switch (attributeOf(id)) {
    case AttributeCode::originalValue:
    case AttributeCode::onlineValue: {
      CapturedItem item;
      item.id = id;
      if (standing == Standing::gone) {
        return item;
      }
      item.kind = CapturedItem::Kind::value;
      item.value = state.attributes.value;
      if (!item.value) {
        const DpElementType type = catalogue.at(id.getEl()).lastType;
        item.value = defaultValue(type == DPELEMENT_NOELEMENT ? DPELEMENT_INT : type);
      }
      return item;
    }
    case AttributeCode::originalStime:
    case AttributeCode::onlineStime:
      return make(id, CapturedItem::Kind::moment, state.valueTimeMs);
    case AttributeCode::originalExpInv:
    case AttributeCode::onlineInvalid:
      return make(id, CapturedItem::Kind::bit,
                  state.attributes.invalid || standing != Standing::sound ? 1 : 0);
    case AttributeCode::originalUserBit1:
      return make(id, CapturedItem::Kind::bit, state.attributes.userBit1 ? 1 : 0);
    case AttributeCode::originalUserBit2:
      return make(id, CapturedItem::Kind::bit, state.attributes.userBit2 ? 1 : 0);
    default:
      return make(id, CapturedItem::Kind::missing, 0);
  }
}

void deliver(const Delivery& delivery) {
  if (delivery.kind == Delivery::Kind::answer) {
    DpMsgAnswer answer;
    AnswerGroup& group = answer.addGroup();
    group.reserve(delivery.items.size());
    for (const CapturedItem& item : delivery.items) {
      group.append(item.id, makeVariable(item));
    }
    delivery.target->callBack(answer);
    return;
  }
  const DpMsg message;
  DpHLGroup group;
  group.reserve(delivery.items.size());
  for (const CapturedItem& item : delivery.items) {
    group.append(item.id, makeVariable(item));
  }
  static_cast<HotLinkWaitForAnswer*>(delivery.target)->hotLinkCallBack(message, group);
}

}  // namespace pvss
