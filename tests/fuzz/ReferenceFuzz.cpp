// Any text is a reference of an element's address: publication up to the first delimiter, tag behind it.
#include <algorithm>
#include <cstdint>
#include <string>

#include "GatewayWorld.h"
#include "KELClientManager.h"
#include "Require.h"

using fuzz::require;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string all(reinterpret_cast<const char*>(data), size);
  const std::string text = all.substr(0, all.find('\0'));  // a text of the platform ends at a NUL
  const std::string publication = text.substr(0, text.find(CkelClientManager::pubNameDelimiter[0]));

  const gateway_fuzz::Quiet quiet;
  gateway_fuzz::World& world = gateway_fuzz::world({"A.v"});
  world.plant.setAddress("A.v", 16, "KEL", text);
  gateway_fuzz::World::settle();
  world.kel.takeCalls();
  CkelClientManager clients;
  const DynVar list = gateway_fuzz::World::texts({"A.v"});
  clients.updateConfig(&list);
  require(world.kel.takeCalls() == std::vector<std::string>{"subscribe " + publication});
  // A record for it finds its mapping, whatever the tag is.
  auto* const subscription = world.kel.subscription(publication);
  require(subscription != nullptr && subscription->listener != nullptr);
  KelData record;
  try {
    record.insert(1.5F, text.substr(std::min(text.size(), publication.size() + 1)).c_str());
  } catch (const KelException&) {
    // No field can be called so; the record comes without it.
  }
  subscription->listener->handleMessage(subscription, record);
  gateway_fuzz::Manager::writeQueuedUpdates();
  gateway_fuzz::World::settle();
  const DynVar none = gateway_fuzz::World::texts({});
  clients.updateConfig(&none);
  require(world.kel.takeCalls() == std::vector<std::string>{"release " + publication});
  return 0;
}
