// StoreAdmin::watch: current states, then the change log.
#include <unordered_map>

#include "basics/Values.h"
#include "store/ValueCodec.h"
#include "store/redis/AttributeText.h"
#include "store/redis/CatalogueText.h"
#include "store/redis/StoreAdminImpl.h"

namespace pvss {

using redis::AdminCommand;
using redis::ReplyCursor;

namespace {

constexpr std::chrono::milliseconds longestWait{200};  // so that the stop flag is seen soon

template <typename Integer>
Integer numberOf(std::string_view digits) {
  Integer value = 0;
  std::from_chars(digits.data(), digits.data() + digits.size(), value);
  return value;
}

class Watch {
 public:
  using Callback = std::function<bool(const StoreChange&)>;

  Watch(StoreAdmin& admin, const std::vector<std::string>& names, const Callback& callback)
      : admin_(admin), names_(names), callback_(callback) {
    for (std::size_t i = 0; i < names.size(); ++i) byName_.emplace(names[i], i);
  }

  [[nodiscard]] std::uint64_t position() const { return position_; }
  [[nodiscard]] bool wanted() const { return wanted_; }
  [[nodiscard]] bool missed() const { return missed_; }

  /// Reads everything and gives it as current.
  void readAll(bool firstTime) {
    StoreReadings all = admin_.readElements(names_);
    missed_ = false;
    position_ = all.sequence;
    readings_ = std::move(all.readings);
    if (firstTime) {
      for (const StoreReading& reading : readings_) {
        if (reading.type == DPELEMENT_NOELEMENT) {
          throw StoreError(StoreError::Kind::refused,
                           "store " + admin_.address() + ": no such element: " + reading.name);
        }
      }
    }
    for (const StoreReading& reading : readings_) {
      StoreChange change;
      change.kind =
          reading.type == DPELEMENT_NOELEMENT ? StoreChange::Kind::removed : StoreChange::Kind::current;
      change.sequence = position_;
      change.timeMs = reading.valueTimeMs;
      change.reading = reading;
      give(change);
    }
  }

  void take(ReplyCursor reply) {
    if (reply.array() == 0) return;
    reply.array();
    reply.skip();
    for (std::size_t n = reply.array(); n > 0 && wanted_ && !missed_; --n) {
      reply.array();
      const auto sequence = numberOf<std::uint64_t>(reply.text());
      missed_ = sequence != position_ + 1;
      if (missed_) return;
      position_ = sequence;
      takeEntry(reply);
    }
  }

 private:
  void takeEntry(ReplyCursor& reply) {
    const std::size_t fields = reply.array();
    const std::string_view kind = reply.text();
    const std::string_view head = reply.text();
    StoreChange change;
    change.sequence = position_;
    change.timeMs = numberOf<std::int64_t>(head);
    if (const std::size_t space = head.find(' '); space != std::string_view::npos)
      change.writer = head.substr(space + 1);
    if (kind == "S") {
      // Too large for the log; what it wrote is read with everything else.
      missed_ = true;
      return;
    }
    for (std::size_t i = 2; i + 1 < fields; i += 2) {
      const std::string name(reply.text());
      const std::string_view text = reply.text();
      const auto [begin, end] = byName_.equal_range(name);
      for (auto at = begin; at != end && wanted_; ++at) {
        change.reading = {};
        StoreReading& reading = readings_[at->second];
        if (kind == "s") {
          written(reading, text, change);
        } else {
          defined(reading, kind == "c" ? text : std::string_view(), change);
        }
        change.reading = reading;
        give(change);
      }
    }
  }

  static void written(StoreReading& reading, std::string_view text, StoreChange& change) {
    redis::AttributeView view;
    redis::parseAttributeText(text, view);
    change.kind = StoreChange::Kind::written;
    change.attributes = redis::lettersOfMask(view.mask);
    if ((view.mask & attributeValue) != 0) {
      std::string error;
      reading.value =
          reading.type == DPELEMENT_NOELEMENT ? nullptr : parseValueText(reading.type, view.value, error);
      reading.valueTimeMs = change.timeMs;
    }
    if ((view.mask & attributeInvalid) != 0 && view.invalid != reading.invalid) {
      reading.invalid = view.invalid;
      reading.invalidTimeMs = change.timeMs;
    }
    if ((view.mask & attributeUserBit1) != 0) reading.userBit1 = view.userBit1;
    if ((view.mask & attributeUserBit2) != 0) reading.userBit2 = view.userBit2;
  }

  static void defined(StoreReading& reading, std::string_view text, StoreChange& change) {
    CatalogueEntry entry;
    redis::parseCatalogueText(text, entry);
    change.attributes.clear();
    change.kind = entry.type == DPELEMENT_NOELEMENT ? StoreChange::Kind::removed : StoreChange::Kind::defined;
    if (entry.type == reading.type) return;
    StoreReading fresh;
    fresh.name = reading.name;
    fresh.type = entry.type;
    reading = std::move(fresh);
  }

  void give(const StoreChange& change) {
    if (wanted_) wanted_ = callback_(change);
  }

  StoreAdmin& admin_;
  const std::vector<std::string>& names_;
  const Callback& callback_;
  std::unordered_multimap<std::string, std::size_t> byName_;
  std::vector<StoreReading> readings_;
  std::uint64_t position_ = 0;
  bool wanted_ = true;
  bool missed_ = false;
};

}  // namespace

void StoreAdmin::watch(const std::vector<std::string>& names,
                       const std::function<bool(const StoreChange&)>& callback, const std::atomic<bool>& stop,
                       std::optional<std::chrono::milliseconds> duration) {
  using redis::Clock;
  const Clock::time_point begin = Clock::now();
  Watch watch(*this, names, callback);
  std::string server = impl_->runId();
  std::uint64_t connects = impl_->link.connects();
  watch.readAll(true);
  while (watch.wanted() && !stop) {
    std::chrono::milliseconds wait = std::min(longestWait, impl_->link.limit() / 2);
    if (duration) {
      const auto left =
          std::chrono::duration_cast<std::chrono::milliseconds>(begin + *duration - Clock::now());
      if (left.count() <= 0) return;
      wait = std::min(wait, left);
    }
    if (watch.missed()) watch.readAll(false);
    AdminCommand command({"XREAD", "COUNT", "1000", "BLOCK"});
    command.add(static_cast<std::uint64_t>(wait.count())).add("STREAMS").add("dp:log").add(watch.position());
    impl_->link.ask(command, [&](ReplyCursor reply) {
      // What another server's log says at this position is not what comes next.
      if (impl_->link.connects() == connects) watch.take(reply);
    });
    if (impl_->link.connects() != connects) {
      connects = impl_->link.connects();
      if (const std::string now = impl_->runId(); now != server) {
        server = now;
        watch.readAll(false);
      }
    } else if (impl_->sequence() < watch.position()) {
      watch.readAll(false);  // emptied: it counts from the start and would not reach this position for long
    }
  }
}

}  // namespace pvss
