#include "addVerInfo.h"

#include <pvss/Resources.h>

#include <array>
#include <cstdio>

namespace {

/// Identifies the executable to tools that look for such texts; nothing reads it here.
[[gnu::used]] const char version[] = "$Revision: 3.0  $";

constexpr unsigned int wholeText = static_cast<unsigned int>(-1);

const AddVersionInfo linkedAt;

}  // namespace

AddVersionInfo::AddVersionInfo() {
  std::array<char, 256> text{};
  // The empty second argument leaves two blanks behind the version.
  std::snprintf(text.data(), text.size(), "%s %s linked at %s", "3.0", "", __DATE__ " " __TIME__);
  Resources::addVersionInfo.setCharStr(text.data(), wholeText);
}
