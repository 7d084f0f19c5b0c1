// Observers: where the manager tells of its calls, for tests.
#pragma once

#include "pvss/testing/MemoryPlant.h"

namespace pvss::testing {

/// Who is told; null for nobody.
ManagerObserver*& currentObserver() noexcept;

}  // namespace pvss::testing
