// kelManager: what the two sides of the gateway have in common, and how their lists reach them.
//
// Purpose    CkelManager is a side that is configured by one list element; ConfigListChangeListener hands it
//            every value of that element.
// Ownership  The listener refers to a side that outlives it.
// Thread     The thread that runs Manager::dispatch.
// Errors     An item without a value is reported and skipped; what a side throws passes through.
#pragma once

#include <pvss/CharString.h>
#include <pvss/DynVar.h>
#include <pvss/HotLinkWaitForAnswer.h>

#include <vector>

class CkelManager {
 public:
  CkelManager() = default;
  CkelManager(const CkelManager&) = delete;
  CkelManager& operator=(const CkelManager&) = delete;
  virtual ~CkelManager() = default;

  /// Takes the complete content of the list element; called for the first value and after every change. The
  /// list stays the caller's.
  virtual void updateConfig(const DynVar* list) = 0;
};

class ConfigListChangeListener : public HotLinkWaitForAnswer {
 public:
  explicit ConfigListChangeListener(CkelManager& listOwner) : manager(listOwner) {}
  ~ConfigListChangeListener() override = default;

  using HotLinkWaitForAnswer::hotLinkCallBack;
  /// The current value, in answer to the connect.
  void hotLinkCallBack(DpMsgAnswer& answer) override;
  /// Every later value.
  void hotLinkCallBack(DpHLGroup& group) override;

 private:
  CkelManager& manager;
};

/// Orders pointers to texts by the texts.
struct CharStringLess {
  bool operator()(const CharString* left, const CharString* right) const { return *left < *right; }
};

/// The texts of a list, in order; items that are not texts are passed over.
[[nodiscard]] std::vector<CharString> textsOf(const DynVar& list);
