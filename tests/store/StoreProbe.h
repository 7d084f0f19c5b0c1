// StoreProbe: one store with a directory and a listener that remember everything they are told.
#pragma once

#include <algorithm>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "pvss/FloatVar.h"
#include "store/DatapointStore.h"
#include "store/ValueCodec.h"
#include "store/redis/RedisStore.h"

namespace storetest {

class StoreProbe final : public pvss::StoreListener, public pvss::ElementDirectory {
 public:
  struct Confirmation {
    std::uint64_t clientSequence;
    pvss::WriteOutcome outcome;
    std::string text;
    std::vector<std::uint32_t> leftOut;
  };
  struct Answer {
    std::uint64_t request;
    std::uint64_t sequence;
    std::vector<pvss::ElementState> states;
  };

  StoreProbe(const std::string& address, const std::string& writer,
             pvss::redis::RedisStoreOptions options = {}, int number = 7) {
    names_.emplace_back();
    std::string error;
    const auto parsed = pvss::redis::parseStoreAddress(address, error);
    if (!parsed) throw std::runtime_error(error);
    store_ = std::make_unique<pvss::redis::RedisStore>(*parsed, options);
    pvss::ManagerIdentity identity;
    identity.number = number;
    identity.kind = "api";
    identity.writer = writer;
    identity.host = "here";
    identity.process = 42;
    identity.versionText = "probe 1";
    store_->start(*this, *this, identity);
  }

  pvss::DatapointStore& store() { return *store_; }
  void end() { store_.reset(); }

  /// Polls until the condition holds; false when it does not within the time.
  bool until(const std::function<bool()>& condition,
             std::chrono::milliseconds limit = std::chrono::seconds(20)) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
      if (std::chrono::steady_clock::now() >= end) return false;
      store_->poll(std::chrono::milliseconds(10));
    }
    return true;
  }
  bool untilUp(std::size_t times = 1) {
    return until([&] { return greetings.size() >= times; });
  }
  /// Polls for so long, whatever happens.
  void during(std::chrono::milliseconds length) {
    until([] { return false; }, length);
  }

  pvss::WriteBatch batch(std::uint64_t sequence, std::int64_t timeMs, const std::string& name, double value) {
    pvss::WriteBatch out;
    out.clientSequence = sequence;
    out.timeMs = timeMs;
    pvss::ElementAttributes attributes;
    attributes.element = intern(name);
    attributes.mask = pvss::attributeValue | pvss::attributeInvalid;
    attributes.invalid = false;
    attributes.value = std::make_shared<FloatVar>(value);
    out.elements.push_back(attributes);
    return out;
  }

  static std::string textOf(const pvss::ElementAttributes& attributes) {
    return attributes.value ? pvss::valueText(*attributes.value) : "-";
  }

  // StoreListener
  void storeUp(const pvss::StoreGreeting& greeting) override { greetings.push_back(greeting); }
  void storeDown(std::string_view reason) override { downs.emplace_back(reason); }
  void catalogueLoaded(std::vector<pvss::CatalogueEntry> entries) override {
    types_.clear();
    for (const auto& entry : entries) types_[intern(entry.name)] = entry.type;
    catalogue = std::move(entries);
    events.emplace_back("catalogue");
  }
  void catalogueChanged(pvss::CatalogueEntry entry) override {
    types_[intern(entry.name)] = entry.type;
    events.push_back((entry.type == DPELEMENT_NOELEMENT ? "removed " : "defined ") + entry.name);
    catalogueChanges.push_back(std::move(entry));
  }
  void changed(const pvss::Change& change) override {
    changes.push_back(change);
    events.push_back("change " + std::to_string(change.sequence));
  }
  void snapshot(std::uint64_t request, std::uint64_t sequence,
                std::vector<pvss::ElementState> states) override {
    answers.push_back({request, sequence, std::move(states)});
  }
  void confirmed(std::uint64_t clientSequence, pvss::WriteOutcome outcome, std::string_view text,
                 const std::vector<std::uint32_t>& leftOut) override {
    confirmations.push_back({clientSequence, outcome, std::string(text), leftOut});
    if (onConfirmed) onConfirmed(confirmations.back());
  }
  void lease(bool held, std::string_view holder) override { leases.emplace_back(held, holder); }
  void caughtUp() override { ++timesCaughtUp; }
  void gap(std::string_view reason) override {
    gaps.emplace_back(reason);
    events.emplace_back("gap");
  }

  // ElementDirectory
  pvss::ElementId intern(std::string_view name) override {
    const auto [at, fresh] = ids_.try_emplace(std::string(name), static_cast<pvss::ElementId>(names_.size()));
    if (fresh) names_.emplace_back(name);
    return at->second;
  }
  [[nodiscard]] const std::string& nameOf(pvss::ElementId element) const override {
    return names_.at(element);
  }
  [[nodiscard]] DpElementType typeOf(pvss::ElementId element) const override {
    const auto found = types_.find(element);
    return found == types_.end() ? DPELEMENT_NOELEMENT : found->second;
  }

  std::vector<pvss::StoreGreeting> greetings;
  std::vector<std::string> downs;
  std::vector<pvss::CatalogueEntry> catalogue;
  std::vector<pvss::CatalogueEntry> catalogueChanges;
  std::vector<pvss::Change> changes;
  std::vector<Answer> answers;
  std::vector<Confirmation> confirmations;
  std::vector<std::pair<bool, std::string>> leases;
  std::vector<std::string> gaps;
  std::vector<std::string> events;
  std::size_t timesCaughtUp = 0;
  std::function<void(const Confirmation&)> onConfirmed;

 private:
  std::map<std::string, pvss::ElementId, std::less<>> ids_;
  std::vector<std::string> names_;
  std::map<pvss::ElementId, DpElementType> types_;
  std::unique_ptr<pvss::redis::RedisStore> store_;
};

}  // namespace storetest
