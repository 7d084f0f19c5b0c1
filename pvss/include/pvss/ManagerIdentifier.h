// ManagerIdentifier: names one manager of a system.
#pragma once

enum ManagerType : int { NO_MAN = 0, EVENT_MAN = 1, DATA_MAN = 2, API_MAN = 7 };

class ManagerIdentifier {
 public:
  constexpr ManagerIdentifier() noexcept = default;
  constexpr ManagerIdentifier(int system, ManagerType type, int number, int subType = 0) noexcept
      : manSystem(system), manType(type), manNum(number), manSubType(subType) {}

  friend constexpr bool operator==(const ManagerIdentifier&, const ManagerIdentifier&) noexcept = default;

  int manSystem = 0;
  ManagerType manType = NO_MAN;
  int manNum = 0;
  int manSubType = 0;
};
