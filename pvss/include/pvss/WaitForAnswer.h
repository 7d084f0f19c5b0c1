// WaitForAnswer: the object that a dpConnect or dpGet calls back.
//
// Ownership  Belongs to the caller. The manager keeps its address until the answer (of a hot-link: for ever);
//            destroying the object ends that, and it is never called again.
// Thread     Called, and to be destroyed, on the thread that runs Manager::dispatch; called from inside it.
// Errors     What a callback throws passes out of Manager::dispatch.
#pragma once

class DpMsgAnswer;

namespace pvss {
class ManagerCore;
}

class WaitForAnswer {
 public:
  enum Kind { KIND_ANSWER = 0, KIND_HOTLINK = 1 };

  WaitForAnswer() = default;
  WaitForAnswer(const WaitForAnswer&) = delete;
  WaitForAnswer& operator=(const WaitForAnswer&) = delete;

  virtual ~WaitForAnswer();
  /// Which kind of callback object this is.
  [[nodiscard]] virtual Kind isA() const { return KIND_ANSWER; }
  /// The answer to the request.
  virtual void callBack(DpMsgAnswer& answer) = 0;

 private:
  friend class pvss::ManagerCore;
  unsigned waiting_ = 0;  // for how many answers and connects the manager holds the address
};
