// The suite on the Redis store, each test on a server of its own.
#include <unistd.h>

#include <cstdlib>

#include "RedisServer.h"
#include "StoreSuite.h"
#include "core/Catalogue.h"
#include "pvss/StoreAdmin.h"

namespace storetest {

namespace {

class RedisFixture final : public StoreFixture {
 public:
  RedisFixture() {
    ::setenv("PVSS_STORE", server_.address().c_str(), 1);
    // A second name of the same socket, so that the manager's way can be shut and this one stays open.
    if (::link(server_.socket().c_str(), sideDoor().c_str()) != 0)
      throw std::runtime_error("no second socket");
    admin_ = std::make_unique<pvss::StoreAdmin>("redis+unix://" + sideDoor());
    admin_->installFunctions();
  }
  ~RedisFixture() override { ::unsetenv("PVSS_STORE"); }

  void define(const std::string& name, DpElementType type) override {
    pvss::StoreElement element;
    element.name = name;
    element.type = type;
    admin_->putElements({element});
  }
  void remove(const std::string& name) override { admin_->removeElements({name}); }
  void setAddress(const std::string& name, int type, const std::string& driver,
                  const std::string& reference) override {
    pvss::StoreElement element = entryOf(name);
    element.addressType = type;
    element.driver = driver;
    element.reference = reference;
    admin_->putElements({element});
  }
  void switchOff(const std::string& attribute) override {
    const pvss::SplitName split = pvss::splitName(attribute);
    pvss::StoreElement element = entryOf(std::string(split.element));
    element.disabled |= pvss::disabledBit(split.attribute);
    admin_->putElements({element});
  }
  void write(const std::vector<std::pair<std::string, ElementWrite>>& elements,
             std::int64_t timeMs) override {
    std::vector<pvss::StoreWrite> writes;
    writes.reserve(elements.size());
    for (const auto& [name, element] : elements) {
      writes.push_back({name, element.value, element.invalid, element.userBit1, element.userBit2});
    }
    // The tools' client takes time 0 for now, but a suite means what it says.
    if (timeMs == 0) timeMs = 1;
    admin_->write(writes, timeMs);
  }
  ElementView read(const std::string& name) override {
    const pvss::StoreReading reading = admin_->readElements({name}).readings.at(0);
    ElementView view;
    view.type = reading.type;
    view.value = reading.value ? reading.value : pvss::defaultValue(reading.type);
    view.invalid = reading.invalid;
    view.userBit1 = reading.userBit1;
    view.userBit2 = reading.userBit2;
    view.valueTimeMs = reading.valueTimeMs;
    view.invalidTimeMs = reading.invalidTimeMs;
    return view;
  }
  void breakLink() override {
    ASSERT_EQ(::rename(server_.socket().c_str(), (server_.socket() + ".shut").c_str()), 0);
    // Everybody is thrown out; the fixture's own client comes back by the side door.
    const std::string command = "redis-cli -s '" + sideDoor() + "' CLIENT KILL TYPE normal > /dev/null";
    ASSERT_EQ(std::system(command.c_str()), 0);
  }
  void mendLink() override {
    ASSERT_EQ(::rename((server_.socket() + ".shut").c_str(), server_.socket().c_str()), 0);
  }

 private:
  [[nodiscard]] std::string sideDoor() const { return server_.folder() + "/side"; }
  pvss::StoreElement entryOf(const std::string& name) {
    for (pvss::StoreElement& element : admin_->listElements()) {
      if (element.name == name) return element;
    }
    throw std::runtime_error("no element " + name);
  }

  RedisServer server_;
  std::unique_ptr<pvss::StoreAdmin> admin_;
};

std::unique_ptr<StoreFixture> makeRedisFixture() {
  return std::make_unique<RedisFixture>();
}

}  // namespace

INSTANTIATE_TEST_SUITE_P(Redis, StoreSuite, ::testing::Values(StoreKind{"redis", &makeRedisFixture}));

}  // namespace storetest
