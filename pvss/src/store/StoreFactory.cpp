#include "store/StoreFactory.h"

#include "pvss/PlantFile.h"
#include "store/memory/MemoryStore.h"
#include "store/redis/RedisStore.h"
#include "store/redis/StoreAddress.h"

namespace pvss {

namespace {

constexpr std::string_view memoryScheme = "memory:";

std::unique_ptr<DatapointStore> makeMemoryStore(const std::string& file, std::string& problem) {
  auto database = std::make_shared<MemoryDatabase>();
  if (!file.empty()) {
    const PlantFile plant = PlantFile::read(file);
    if (!plant.errors.empty()) {
      problem = plant.errorText(file);
      return nullptr;
    }
    database->load(plant);
  }
  return std::make_unique<MemoryStore>(std::move(database));
}

}  // namespace

std::shared_ptr<MemoryDatabase>& testDatabase() noexcept {
  static std::shared_ptr<MemoryDatabase> database;
  return database;
}

std::unique_ptr<DatapointStore> makeStore(const std::string& address, std::string& problem) {
  if (testDatabase()) {
    return std::make_unique<MemoryStore>(testDatabase());
  }
  if (address.starts_with(memoryScheme)) {
    return makeMemoryStore(address.substr(memoryScheme.size()), problem);
  }
  if (address.empty()) {
    problem = "no store: set PVSS_STORE, or store in [general] of the configuration file";
    return nullptr;
  }
  std::string reason;
  if (const auto redis = redis::parseStoreAddress(address, reason)) {
    return std::make_unique<redis::RedisStore>(*redis);
  }
  problem = "store " + withoutSecrets(address) + ": " + reason;
  return nullptr;
}

std::string withoutSecrets(std::string_view address) {
  // A password has no place in an address; should one stand there all the same, it is not shown.
  const std::size_t scheme = address.find("://");
  const std::size_t begin = scheme == std::string_view::npos ? 0 : scheme + 3;
  const std::size_t end = std::min(address.find_first_of("/?", begin), address.size());
  const std::size_t at = address.substr(0, end).rfind('@');
  std::string shown(address.substr(0, begin));
  shown += at == std::string_view::npos || at < begin ? address.substr(begin) : address.substr(at + 1);
  return shown.substr(0, shown.find('?'));
}

}  // namespace pvss
