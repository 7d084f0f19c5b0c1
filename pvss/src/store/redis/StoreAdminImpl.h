// StoreAdminImpl: what the files of StoreAdmin share.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "pvss/StoreAdmin.h"
#include "store/DatapointStore.h"
#include "store/redis/StoreAdminLink.h"

namespace pvss {

class StoreAdmin::Impl {
 public:
  Impl(redis::StoreAddress address, std::chrono::milliseconds limit);

  redis::StoreAdminLink link;
  std::string writer;  // "kelgw." and 128 random bits
  std::uint64_t clientSequence = 0;

  /// Refused, with what to do, unless the store has exactly this program's functions.
  void needFunctions();
  /// Types of the elements, DPELEMENT_NOELEMENT for unknown ones.
  std::vector<DpElementType> typesOf(const std::vector<std::string>& names);
  std::string runId();
  std::uint64_t sequence();
  [[noreturn]] void refuse(const std::string& text) const;

 private:
  bool functionsSeen_ = false;
};

namespace redis {

/// Reads one state (v i 1 2 t ti) into a reading that has its name and type already.
void takeReading(ReplyCursor& reply, StoreReading& reading);
StoreElement elementOf(CatalogueEntry entry);
/// The value of "name:value" in the text that INFO gives.
std::string_view infoField(std::string_view info, std::string_view name);

}  // namespace redis
}  // namespace pvss
