#include "KelDataSpy.h"

#include <kel/KelData.h>

namespace gateway_test {
namespace {

KelDataSpy::Action current;

void tell(const char* operation, const char* tag) {
  if (current) {
    current(operation, tag);
  }
}

}  // namespace

KelDataSpy::KelDataSpy(Action action) {
  current = std::move(action);
}
KelDataSpy::~KelDataSpy() {
  current = nullptr;
}

// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp): the names that the linker asks for.
extern "C" {
int __real__ZNK7KelData10extractIntEPKc(const KelData* data, const char* tag);
int __real__ZNK7KelData12getValueTypeEPKc(const KelData* data, const char* tag);
const int* __real__ZNK7KelData15extractIntArrayERiPKc(const KelData* data, int& count, const char* tag);
void __real__ZN7KelData6insertEiPKc(KelData* data, int value, const char* tag);

int __wrap__ZNK7KelData10extractIntEPKc(const KelData* data, const char* tag);
int __wrap__ZNK7KelData10extractIntEPKc(const KelData* data, const char* tag) {
  tell("extractInt", tag);
  return __real__ZNK7KelData10extractIntEPKc(data, tag);
}
int __wrap__ZNK7KelData12getValueTypeEPKc(const KelData* data, const char* tag);
int __wrap__ZNK7KelData12getValueTypeEPKc(const KelData* data, const char* tag) {
  tell("getValueType", tag);
  return __real__ZNK7KelData12getValueTypeEPKc(data, tag);
}
const int* __wrap__ZNK7KelData15extractIntArrayERiPKc(const KelData* data, int& count, const char* tag);
const int* __wrap__ZNK7KelData15extractIntArrayERiPKc(const KelData* data, int& count, const char* tag) {
  tell("extractIntArray", tag);
  return __real__ZNK7KelData15extractIntArrayERiPKc(data, count, tag);
}
void __wrap__ZN7KelData6insertEiPKc(KelData* data, int value, const char* tag);
void __wrap__ZN7KelData6insertEiPKc(KelData* data, int value, const char* tag) {
  tell("insert", tag);
  __real__ZN7KelData6insertEiPKc(data, value, tag);
}
}
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)

}  // namespace gateway_test
