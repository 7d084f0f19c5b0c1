// Resolver: turns a host name into addresses without holding up the thread that asks.
//
// Purpose    A name server that does not answer can block for half a minute; the transport's thread must stay
//            able to stop and to tick meanwhile. So the look-up runs in a short-lived thread of its own,
//            which outlives the resolver if it has to.
// Thread     One thread uses it. Wait on descriptor(), then take().
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace kel::mqtt {

struct Address {
  std::string numeric;
  bool v6 = false;
};

struct Resolution {
  std::vector<Address> addresses;  ///< in the system's order of preference, without repeats
  std::string failure;             ///< why there are none
};

class Resolver {
 public:
  using LookUp = std::function<Resolution(const std::string& host, std::uint16_t port)>;
  /// Asks the system; another way to look names up is for tests.
  explicit Resolver(LookUp way = {});
  Resolver(const Resolver&) = delete;
  Resolver& operator=(const Resolver&) = delete;

  /// A numeric address is answered at once; else a look-up begins, or goes on if one is under way. What the
  /// process itself lacks for it is a failure like any other.
  void begin(const std::string& host, std::uint16_t port);
  /// Readable when the answer is there; -1 when no look-up is under way.
  [[nodiscard]] int descriptor() const;
  /// The answer, once; nothing while the look-up still runs.
  std::optional<Resolution> take();

 private:
  struct Lookup;
  const LookUp lookUp_;
  std::shared_ptr<Lookup> lookup_;
  std::optional<Resolution> ready_;
};

}  // namespace kel::mqtt
