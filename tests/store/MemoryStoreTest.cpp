// The suite on the memory store.
#include "StoreSuite.h"

namespace storetest {

namespace {

class MemoryFixture final : public StoreFixture {
 public:
  void define(const std::string& name, DpElementType type) override { plant_.addElement(name, type); }
  void remove(const std::string& name) override { plant_.removeElement(name); }
  void setAddress(const std::string& name, int type, const std::string& driver,
                  const std::string& reference) override {
    plant_.setAddress(name, type, driver, reference);
  }
  void switchOff(const std::string& attribute) override { plant_.switchOff(attribute); }
  void write(const std::vector<std::pair<std::string, ElementWrite>>& elements,
             std::int64_t timeMs) override {
    plant_.write(elements, timeMs);
  }
  ElementView read(const std::string& name) override { return plant_.read(name); }
  void breakLink() override { plant_.setLinkUp(false); }
  void mendLink() override { plant_.setLinkUp(true); }

 private:
  pvss::testing::MemoryPlant plant_;
};

std::unique_ptr<StoreFixture> makeMemoryFixture() {
  return std::make_unique<MemoryFixture>();
}

}  // namespace

INSTANTIATE_TEST_SUITE_P(Memory, StoreSuite, ::testing::Values(StoreKind{"memory", &makeMemoryFixture}));

}  // namespace storetest
