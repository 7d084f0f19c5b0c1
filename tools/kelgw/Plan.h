// Plan: what has to be done to a store so that it matches a plant; a pure computation.
//
// Purpose    Compares the wanted state with the found one and says every step, what it replaces and why.
// Thread     Plain values, no I/O.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "pvss/StoreAdmin.h"

namespace kelgw {

/// The character between the fields of a publication entry and between publication and tag of an address.
constexpr char fieldSeparator = '\x1A';

struct WantedState {
  std::vector<pvss::StoreElement> elements;  ///< with addresses; the two list elements included
  std::vector<std::pair<std::string, std::shared_ptr<const Variable>>> values;  ///< initial values
  std::string clientList;                 ///< name of the element; empty: no such list
  std::vector<std::string> clients;       ///< names of elements
  std::string publicationList;            ///< name of the element; empty: no such list
  std::vector<std::string> publications;  ///< entries with separators
};

struct FoundState {
  std::vector<pvss::StoreElement> elements;
  std::vector<pvss::StoreReading> readings;  ///< of every name that valuesNeeded() gives
};

/// The names whose values makePlan has to know.
[[nodiscard]] std::vector<std::string> valuesNeeded(const WantedState& wanted);

struct PlanOptions {
  bool prune = false;        ///< delete what the plant does not have
  bool resetValues = false;  ///< write every value of the plant that differs, not only missing ones
};

struct PlanStep {
  enum class Action : std::uint8_t { create, retype, address, value, list, listAgain, remove };
  Action action;
  std::string name;
  std::string detail;  ///< for people, outside text escaped
};

/// A publication that a running manager goes on with as it was.
struct RestartNote {
  std::string publication;
  std::string reason;
};

struct Plan {
  pvss::StorePlan work;               ///< entries, values and lists, without removals
  std::vector<std::string> removals;  ///< after the lists, so that nothing listed is missing meanwhile
  std::vector<PlanStep> steps;        ///< the same for people, in order
  std::vector<RestartNote> restarts;
  std::size_t keptValues = 0;  ///< values that differ from the plant's and stay as they are
  [[nodiscard]] bool nothingToDo() const { return steps.empty(); }
};

[[nodiscard]] Plan makePlan(const WantedState& wanted, const FoundState& found, const PlanOptions& options);

[[nodiscard]] std::string_view wordOf(PlanStep::Action action);

/// The fields of an entry: a separator at the end closes the last field and begins no empty one.
[[nodiscard]] std::vector<std::string> splitEntry(std::string_view entry);
/// "plant/boiler1 -> temperature" for an address reference; "none" for the empty one.
[[nodiscard]] std::string showReference(const pvss::StoreElement& element);

}  // namespace kelgw
