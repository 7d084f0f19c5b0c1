// Delivery: one callback that is ready to be made, with the values that it brings.
//
// Purpose    Captures values when they are true and makes the caller's copies when the callback runs.
// Thread     The thread that runs Manager::dispatch.
#pragma once

#include <cstdint>
#include <vector>

#include "core/Catalogue.h"
#include "pvss/DpIdentifier.h"

class WaitForAnswer;

namespace pvss {

/// One item as it was at the moment of the capture.
struct CapturedItem {
  enum class Kind : std::uint8_t { missing, bit, number, moment, value };
  DpIdentifier id;
  Kind kind = Kind::missing;
  std::int64_t number = 0;  ///< of a bit, number or moment (milliseconds)
  SharedValue value;
};

struct Delivery {
  enum class Kind : std::uint8_t { answer, hotLink };
  WaitForAnswer* target = nullptr;  ///< null once the target is gone
  Kind kind = Kind::answer;
  bool last = false;      ///< nothing else will come for this request
  std::size_t bytes = 0;  ///< that it takes while it waits, about; a value that others share counts in full
  std::vector<CapturedItem> items;
};

/// What an item of a request needs of the store.
[[nodiscard]] constexpr bool needsState(AttributeCode code) noexcept {
  return code >= AttributeCode::originalValue && code <= AttributeCode::onlineInvalid;
}

/// The item of an address attribute; also of nothing (missing).
[[nodiscard]] CapturedItem captureAddress(const DpIdentifier& id, const Catalogue& catalogue);
/// How a state is shown: as it is, as what may no longer be true, or as what is gone.
enum class Standing : std::uint8_t {
  sound,
  unsure,  ///< invalid 1, whatever it was
  gone,    ///< invalid 1 and no value
};
/// The item of an attribute of the state.
[[nodiscard]] CapturedItem captureState(const DpIdentifier& id, const ElementState& state,
                                        const Catalogue& catalogue, Standing standing = Standing::sound);

/// Makes the callback; `target` must not be null.
void deliver(const Delivery& delivery);

}  // namespace pvss
