// DpMsg: base of what the manager hands to a callback.
//
// Ownership  Belongs to the manager and lives as long as the callback runs.
#pragma once

class DpMsg {
 public:
  DpMsg() = default;
  virtual ~DpMsg() = default;
  DpMsg(const DpMsg&) = delete;
  DpMsg& operator=(const DpMsg&) = delete;
};
