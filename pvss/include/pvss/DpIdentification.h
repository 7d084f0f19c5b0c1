// DpIdentification: the systems that names can belong to. There is one, the default system.
#pragma once

class DpIdentification {
 public:
  /// The number of the system that names without a system belong to.
  [[nodiscard]] static signed char getDefaultSystem() noexcept { return 1; }
};
