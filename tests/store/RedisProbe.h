// RedisProbe: what the tests of the Redis store have in common: a server with one element, and writing to it.
#pragma once

#include <algorithm>
#include <functional>
#include <string>

#include "RedisServer.h"
#include "StoreProbe.h"
#include "pvss/StoreAdmin.h"

namespace storetest {

inline constexpr const char* name = "A.f";

inline void prepare(const RedisServer& server, DpElementType type = DPELEMENT_FLOAT) {
  pvss::StoreAdmin admin(server.address());
  admin.installFunctions();
  pvss::StoreElement element;
  element.name = name;
  element.type = type;
  admin.putElements({element});
}

inline std::string valueInStore(const RedisServer& server) {
  return server.cli({"HGET", std::string("dp:d:") + name, "v"});
}

inline std::size_t countOf(const std::string& text, const std::string& part) {
  std::size_t count = 0;
  for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++count;
  return count;
}

/// Writes batches begin..end through the probe as a manager would: kept until confirmed, offered again after
/// a loss. True when all of them were confirmed.
inline bool writeAll(StoreProbe& probe, std::uint64_t begin, std::uint64_t end,
                     const std::function<void(std::uint64_t)>& atConfirmed = {}) {
  std::uint64_t next = begin;
  std::uint64_t confirmed = begin - 1;
  std::size_t downs = probe.downs.size();
  std::size_t ups = probe.greetings.size();
  probe.onConfirmed = [&](const StoreProbe::Confirmation& c) {
    confirmed = c.clientSequence;
    if (atConfirmed) atConfirmed(confirmed);
  };
  const bool done = probe.until(
      [&] {
        if (probe.downs.size() != downs) {
          downs = probe.downs.size();
          next = confirmed + 1;
        }
        if (probe.greetings.size() != ups) {
          ups = probe.greetings.size();
          confirmed = std::max(confirmed, probe.greetings.back().lastClientSequence);
          next = confirmed + 1;
        }
        while (next <= end && probe.store().write(probe.batch(next, static_cast<std::int64_t>(1000 + next),
                                                              name, static_cast<double>(next)))) {
          ++next;
        }
        return confirmed == end;
      },
      std::chrono::seconds(60));
  probe.onConfirmed = nullptr;
  return done;
}

}  // namespace storetest
