// HotLinkWaitForAnswer: the callback object of a dpConnect.
//
// Ownership, thread and errors as WaitForAnswer.
#pragma once

#include "pvss/DpHLGroup.h"
#include "pvss/DpMsgAnswer.h"
#include "pvss/WaitForAnswer.h"

class HotLinkWaitForAnswer : public WaitForAnswer {
 public:
  ~HotLinkWaitForAnswer() override;
  [[nodiscard]] Kind isA() const override { return KIND_HOTLINK; }
  /// Hands the answer to hotLinkCallBack(DpMsgAnswer&).
  void callBack(DpMsgAnswer& answer) override;
  /// The answer to the connect: the current values.
  virtual void hotLinkCallBack(DpMsgAnswer& answer);
  /// Every later change; hands the group to hotLinkCallBack(DpHLGroup&).
  virtual void hotLinkCallBack(const DpMsg& message, DpHLGroup& group);
  virtual void hotLinkCallBack(DpHLGroup& group);
};
