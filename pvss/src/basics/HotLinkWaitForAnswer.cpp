#include "pvss/HotLinkWaitForAnswer.h"

#include "pvss/DiagHotLinkWaitForAnswer.h"

HotLinkWaitForAnswer::~HotLinkWaitForAnswer() = default;

void HotLinkWaitForAnswer::callBack(DpMsgAnswer& answer) {
  hotLinkCallBack(answer);
}

void HotLinkWaitForAnswer::hotLinkCallBack(DpMsgAnswer& /*answer*/) {}

void HotLinkWaitForAnswer::hotLinkCallBack(const DpMsg& /*message*/, DpHLGroup& group) {
  hotLinkCallBack(group);
}

void HotLinkWaitForAnswer::hotLinkCallBack(DpHLGroup& /*group*/) {}

DiagHotLinkWaitForAnswer::~DiagHotLinkWaitForAnswer() = default;

void DiagHotLinkWaitForAnswer::hotLinkCallBack(DpMsgAnswer& /*answer*/) {}

void DiagHotLinkWaitForAnswer::hotLinkCallBack(DpHLGroup& /*group*/) {}
