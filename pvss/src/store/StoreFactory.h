// StoreFactory: makes the store that an address names.
//
// Purpose    memory:plant.yaml (or memory: for an empty one), redis+unix:, redis:, rediss:. While a test
//            has a plant in memory, every address gives that one.
// Thread     The thread that runs Manager::dispatch. Reads the plant file; nothing else blocks.
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "store/DatapointStore.h"

namespace pvss {

class MemoryDatabase;

/// Null, and the reason (of a plant file every complaint, one line each) in `problem`, when there is no such
/// store.
[[nodiscard]] std::unique_ptr<DatapointStore> makeStore(const std::string& address, std::string& problem);

/// The address as it may be shown.
[[nodiscard]] std::string withoutSecrets(std::string_view address);

/// The plant in memory that stands for every address; null for none.
std::shared_ptr<MemoryDatabase>& testDatabase() noexcept;

}  // namespace pvss
