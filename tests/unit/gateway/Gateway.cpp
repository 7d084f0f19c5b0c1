#include "Gateway.h"

#include <pvss/Bit32Var.h>
#include <pvss/BitVar.h>
#include <pvss/CharVar.h>
#include <pvss/DpIdentification.h>
#include <pvss/FloatVar.h>
#include <pvss/IntegerVar.h>
#include <pvss/TextVar.h>
#include <pvss/TimeVar.h>
#include <pvss/UIntegerVar.h>

#include <array>
#include <cstdio>

#include "kelPublicationManager.h"

// The runtime layer never joins its threads, so for the thread sanitizer each one that ended is a leak.
// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp): the name that the sanitizer asks for
extern "C" const char* __tsan_default_options();
extern "C" const char* __tsan_default_options() {
  return "report_thread_leaks=0";
}
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)

namespace gateway_test {

namespace {

template <typename Var>
const Var& as(const Variable& value) {
  return static_cast<const Var&>(value);
}

std::string withoutSystem(const std::string& name) {
  constexpr std::string_view system = "System1:";
  return name.starts_with(system) ? name.substr(system.size()) : name;
}

std::string number(double value) {
  std::array<char, 64> text{};
  std::snprintf(text.data(), text.size(), "%.17g", value);
  return text.data();
}

std::string elements(const DynVar& array) {
  std::string text;
  for (const Variable* item = array.getFirstVar(); item != nullptr; item = array.getNextVar()) {
    text += (text.empty() ? "" : ", ") + describe(item);
  }
  return "[" + text + "]";
}

}  // namespace

std::string printedBy(const std::function<void()>& action) {
  testing::internal::CaptureStdout();
  action();
  return testing::internal::GetCapturedStdout();
}

std::string describe(const Variable* value) {
  if (value == nullptr) {
    return "none";
  }
  switch (value->isA()) {
    case BIT_VAR:
      return as<BitVar>(*value).getValue() ? "bit 1" : "bit 0";
    case INTEGER_VAR:
      return "int " + std::to_string(as<IntegerVar>(*value).getValue());
    case UINTEGER_VAR:
      return "uint " + std::to_string(as<UIntegerVar>(*value).getValue());
    case FLOAT_VAR:
      return "float " + number(as<FloatVar>(*value).getValue());
    case TEXT_VAR:
      return std::string("text ") + as<TextVar>(*value).getValue();
    case BIT32_VAR:
      return "bit32 " + std::to_string(as<Bit32Var>(*value).getValue());
    case CHAR_VAR:
      return "char " + std::to_string(as<CharVar>(*value).getValue());
    case TIME_VAR:
      return "time " + std::to_string(as<TimeVar>(*value).getValue().toMilliseconds());
    case DYNBIT_VAR:
    case DYNINTEGER_VAR:
    case DYNUINTEGER_VAR:
    case DYNFLOAT_VAR:
    case DYNTEXT_VAR:
    case DYNBIT32_VAR:
    case DYNCHAR_VAR:
      return "dyn " + elements(as<DynVar>(*value));
    default:
      return "unknown type";
  }
}

Lines describe(const DpIdValueList& list) {
  Lines lines;
  for (const DpVCItem& item : list) {
    CharString name;
    Manager::getLIName(item.getDpIdentifier(), name, DpIdentification::getDefaultSystem());
    lines.push_back(withoutSystem(name.str()) + " = " + describe(item.getValuePtr()));
  }
  return lines;
}

Lines describe(const pvss::testing::RecordedWrite& write) {
  Lines lines;
  for (const auto& item : write.items) {
    lines.push_back(withoutSystem(item.name) + " = " + describe(item.value.get()));
  }
  return lines;
}

DynVar textList(const std::vector<std::string>& texts) {
  DynVar list(TEXT_VAR);
  for (const std::string& text : texts) {
    list.append(TextVar(text.c_str()));
  }
  return list;
}

std::string reference(const std::string& publication, const std::string& tag) {
  return compound({publication, tag});
}

std::string compound(const std::vector<std::string>& fields) {
  std::string text;
  for (std::size_t i = 0; i < fields.size(); ++i) {
    text += (i == 0 ? "" : CkelClientManager::pubNameDelimiter) + fields[i];
  }
  return text;
}

Gateway::Gateway() {
  KelApiManager::kelFactory = &kel;
  KelApiManager::doExit = PVSS_FALSE;
  plant.clearRecords();
}

Gateway::~Gateway() {
  testing::internal::CaptureStdout();  // the lines of taking everything down
  gdelayedPubThread.stopInOrder();
  for (const auto& [name, group] : std::exchange(CkelPublicationManager::publications, {})) {
    delete group;
  }
  manager.reset();
  ManagerUnderTest::forgetUpdates();  // what nobody looked at does not reach the next test
  testing::internal::GetCapturedStdout();
  KelApiManager::kelFactory = nullptr;
}

void Gateway::start() {
  if (!manager) {
    manager.emplace();
  }
  manager->connectToData(3, nullptr, 0);
  settle();
}

void Gateway::settle() {
  for (int i = 0; i < 50; ++i) {
    long sec = 0;
    long usec = 0;
    Manager::dispatch(sec, usec);
  }
}

std::vector<Lines> Gateway::written() {
  plant.clearRecords();
  ManagerUnderTest::writeQueuedUpdates();
  std::vector<Lines> calls;
  for (const auto& write : plant.writes()) {
    calls.push_back(describe(write));
  }
  return calls;
}

void Gateway::addClient(const std::string& name, DpElementType type, const std::string& publication,
                        const std::string& tag) {
  plant.addElement(name, type);
  plant.setAddress(name, 16, "KEL", reference(publication, tag));
}

}  // namespace gateway_test
