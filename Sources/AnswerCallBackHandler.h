// CdpGetCallBackHandler: collects the answers of one read of a list of elements.
//
// Ownership  Belongs to the reader and lives until every element has answered. Keeps copies of the values.
// Thread     Called inside Manager::dispatch, used on the same thread.
// Errors     An item without value is reported and not counted.
#pragma once

#include <pvss/DpIdValueList.h>
#include <pvss/DpMsgAnswer.h>
#include <pvss/WaitForAnswer.h>

class CdpGetCallBackHandler : public WaitForAnswer {
 public:
  CdpGetCallBackHandler() = default;
  ~CdpGetCallBackHandler() override = default;

  void callBack(DpMsgAnswer& answer) override;

  /// The pairs received, in the order of their arrival.
  [[nodiscard]] const DpIdValueList& getListOfResponses() const { return responseList; }
  [[nodiscard]] int getNumOfResponses() const { return numAnswers; }

 private:
  DpIdValueList responseList;
  int numAnswers = 0;
};
