// For tests only, not part of the seam: a platform SDK does not have it. Makes records as a subscriber gets
// them, so that a test can call a listener's handleMessage itself.
#pragma once

#include <cstdint>
#include <string>

#include <kel/KelData.h>

namespace kel::testing {

/// Sets what only the library sets otherwise. Each returns the record given.
KelData& setQuality(KelData& data, int quality);
KelData& setTimestamp(KelData& data, std::int64_t nanoseconds);
KelData& setReason(KelData& data, const std::string& reason);

}  // namespace kel::testing
