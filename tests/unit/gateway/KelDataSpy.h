// KelDataSpy: sees the field names that reach the Kel library's records, before they get there. The record
// takes no name and an empty name for the same, so only here can a test tell them apart.
//
// Works through the linker's --wrap, in the one test program that is linked so.
#pragma once

#include <functional>

namespace gateway_test {

/// Called while it lives, on whatever thread the call comes, with the tag of every extractInt, getValueType,
/// extractIntArray and insert of an int.
class KelDataSpy {
 public:
  using Action = std::function<void(const char* operation, const char* tag)>;
  explicit KelDataSpy(Action action);
  ~KelDataSpy();
  KelDataSpy(const KelDataSpy&) = delete;
  KelDataSpy& operator=(const KelDataSpy&) = delete;
};

}  // namespace gateway_test
