// What StoreAdmin tells about managers, the log and the store.
#include <algorithm>
#include <map>

#include "store/redis/StoreAdminImpl.h"

namespace pvss {

using redis::AdminCommand;
using redis::functionCall;
using redis::ReplyCursor;

namespace {

constexpr std::int64_t aliveMs = 10000;
constexpr std::uint64_t defaultLogBytes = std::uint64_t{256} * 1024 * 1024;
constexpr std::uint64_t leastLogBytes = std::uint64_t{1024} * 1024;

template <typename Integer>
Integer numberOf(std::string_view digits) {
  Integer value = 0;
  std::from_chars(digits.data(), digits.data() + digits.size(), value);
  return value;
}

/// Takes the number off the front of numbers with blanks between; 0 when there is none.
template <typename Integer>
Integer nextNumber(std::string_view& numbers) {
  const std::size_t space = std::min(numbers.find(' '), numbers.size());
  const auto value = numberOf<Integer>(numbers.substr(0, space));
  numbers.remove_prefix(std::min(space + 1, numbers.size()));
  return value;
}

using Fields = std::map<std::string, std::string, std::less<>>;

std::string fieldOf(const Fields& fields, std::string_view name) {
  const auto found = fields.find(name);
  return found == fields.end() ? std::string() : found->second;
}

StoreManager managerOf(const Fields& fields, std::int64_t now) {
  StoreManager out;
  out.writer = fieldOf(fields, "@writer");
  out.kind = fieldOf(fields, "@kind");
  out.host = fieldOf(fields, "@host");
  out.process = numberOf<int>(fieldOf(fields, "@process"));
  out.versionText = fieldOf(fields, "@version");
  out.lastBeatMs = numberOf<std::int64_t>(fieldOf(fields, "@beat"));
  out.beatAgeMs = now - out.lastBeatMs;
  out.alive = out.beatAgeMs <= aliveMs;
  const std::string order = fieldOf(fields, "@order");
  for (std::size_t at = 0; at < order.size();) {
    const std::size_t end = std::min(order.find('\n', at), order.size());
    const std::string name = order.substr(at, end - at);
    out.counters.emplace_back(name, fieldOf(fields, name));
    at = end + 1;
  }
  return out;
}

}  // namespace

void StoreAdmin::setLogBound(std::uint64_t bytes) {
  if (bytes < leastLogBytes) {
    throw StoreError(StoreError::Kind::usage, "the bound of the change log must be at least 1 MiB");
  }
  impl_->link.ask(AdminCommand({"HSET", "dp:cfg", "logBytes"}).add(bytes), {});
}

std::vector<StoreManager> StoreAdmin::managers() {
  impl_->needFunctions();
  std::vector<StoreManager> out;
  impl_->link.ask(functionCall("dp_managers"), [&](ReplyCursor reply) {
    const std::size_t items = reply.array();
    const std::int64_t now = reply.integer();
    for (std::size_t i = 1; i + 2 < items; i += 3) {
      const std::int64_t number = reply.integer();
      Fields fields;
      for (std::size_t n = reply.array(); n >= 2; n -= 2) {
        const std::string name(reply.text());
        fields[name] = reply.text();
      }
      StoreManager manager = managerOf(fields, now);
      manager.number = static_cast<int>(number);
      manager.leaseHeld = !reply.isNil();
      manager.leaseHolder = reply.text();
      out.push_back(std::move(manager));
    }
  });
  std::sort(out.begin(), out.end(),
            [](const StoreManager& a, const StoreManager& b) { return a.number < b.number; });
  return out;
}

StoreLog StoreAdmin::logStatistics() {
  StoreLog out;
  const std::vector<AdminCommand> commands{AdminCommand({"GET", "dp:seq"}),
                                           AdminCommand({"XLEN", "dp:log"}),
                                           AdminCommand({"GET", "dp:log:bytes"}),
                                           AdminCommand({"GET", "dp:log:dropped"}),
                                           AdminCommand({"HGET", "dp:cfg", "logBytes"}),
                                           AdminCommand({"XRANGE", "dp:log", "-", "+", "COUNT", "1"})};
  impl_->link.askTogether(commands, [&](ReplyCursor reply) {
    reply.array();
    out.sequence = reply.unsignedInteger();
    out.entries = reply.unsignedInteger();
    const std::uint64_t bytes = reply.unsignedInteger();
    out.bytes = bytes - std::min(bytes, reply.unsignedInteger());
    out.boundBytes = reply.isNil() ? defaultLogBytes : numberOf<std::uint64_t>(ReplyCursor(reply).text());
    reply.skip();
    if (reply.array() > 0 && reply.array() > 0) out.firstSequence = numberOf<std::uint64_t>(reply.text());
  });
  return out;
}

StoreStatistics StoreAdmin::statistics() {
  StoreStatistics out;
  out.address = address();
  out.functions = functionsVersion();
  impl_->link.ask(AdminCommand({"INFO", "server"}), [&](ReplyCursor reply) {
    const std::string_view info = reply.text();
    out.serverVersion = redis::infoField(info, "redis_version");
    out.runId = redis::infoField(info, "run_id");
  });
  impl_->link.ask(AdminCommand({"INFO", "memory"}), [&](ReplyCursor reply) {
    out.usedMemoryBytes = numberOf<std::uint64_t>(redis::infoField(reply.text(), "used_memory"));
  });
  std::map<std::string, StoreWriter> writers;
  const std::vector<AdminCommand> commands{AdminCommand({"HLEN", "dp:cat"}),
                                           AdminCommand({"HGETALL", "dp:cli"}),
                                           AdminCommand({"ZRANGE", "dp:cli:use", "0", "-1", "WITHSCORES"})};
  impl_->link.askTogether(commands, [&](ReplyCursor reply) {
    reply.array();
    out.elements = reply.unsignedInteger();
    for (std::size_t n = reply.array(); n >= 2; n -= 2) {
      StoreWriter writer;
      writer.writer = reply.text();
      std::string_view numbers = reply.text();
      writer.lastClientSequence = nextNumber<std::uint64_t>(numbers);
      writer.applied = nextNumber<std::uint64_t>(numbers);
      writer.attributes = nextNumber<std::uint64_t>(numbers);
      writer.refused = nextNumber<std::uint64_t>(numbers);
      writer.values = nextNumber<std::uint64_t>(numbers);
      writer.sinceMs = nextNumber<std::int64_t>(numbers);
      writers[writer.writer] = writer;
    }
    for (std::size_t n = reply.array(); n >= 2; n -= 2) {
      const std::string name(reply.text());
      // Scores are doubles on the wire too; a time in milliseconds fits exactly.
      const auto time = static_cast<std::int64_t>(numberOf<double>(reply.text()));
      if (const auto found = writers.find(name); found != writers.end()) found->second.lastUseMs = time;
    }
  });
  for (auto& [name, writer] : writers) out.writers.push_back(std::move(writer));
  out.log = logStatistics();
  return out;
}

}  // namespace pvss
