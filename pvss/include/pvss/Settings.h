// Settings: what the `[general]` section and the environment say about the manager's own business.
//
// Purpose    Filled by Resources::begin() and generalSection(); read when a manager connects. Not part of the
//            platform contract.
// Thread     Main thread only.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace pvss {

struct Settings {
  std::string store;  ///< key `store`; the variable PVSS_STORE wins
  std::size_t backlogBytes =
      std::size_t{64} * 1024 * 1024;       ///< key `backlogBytes`: bound of the unconfirmed writes
  std::uint32_t invalidAfterSeconds = 10;  ///< key `invalidAfter`: what lists are connected to is called
                                           ///< invalid when the store has been away for so long; 0: never
  std::string system = "System1";          ///< key `system`: name of the default system

  /// The settings of this process.
  static Settings& current();
  /// PVSS_STORE when it is set and not empty, else `store`.
  [[nodiscard]] std::string storeAddress() const;
};

}  // namespace pvss
