// DiagHotLinkWaitForAnswer: the callback object for the platform's own diagnosis elements; ignores what it
// gets.
#pragma once

#include "pvss/HotLinkWaitForAnswer.h"

class DiagHotLinkWaitForAnswer : public HotLinkWaitForAnswer {
 public:
  using HotLinkWaitForAnswer::hotLinkCallBack;
  ~DiagHotLinkWaitForAnswer() override;
  void hotLinkCallBack(DpMsgAnswer& answer) override;
  void hotLinkCallBack(DpHLGroup& group) override;
};
