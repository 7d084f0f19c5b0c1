// WriteBuilder: sorts the pairs of one dpSetTimed call by element.
//
// Purpose    One pass; the last value of an attribute wins; a value without flag clears the flag; what cannot
//            be written is rejected with a reason. Copies each value once. An element of which any identifier
//            was resolved before its type or address changed is left out: what the call says of it was meant
//            for what it was before.
// Thread     The thread that runs Manager::dispatch. Nothing blocks. Only running out of memory throws.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "core/Backlog.h"
#include "core/Catalogue.h"
#include "pvss/DpIdValueList.h"

namespace pvss {

class WriteBuilder {
 public:
  struct Result {
    PreparedWrite write;
    std::uint64_t rejected = 0;     ///< pairs that cannot be written
    std::uint64_t outdated = 0;     ///< pairs of elements that have another type or address since
    std::string firstOutdated;      ///< name of one, empty when none
    std::uint64_t overwritten = 0;  ///< pairs that a later pair of the same call replaced
    std::string firstRejection;     ///< name and reason, empty when none
  };

  explicit WriteBuilder(const Catalogue& catalogue) : catalogue_(catalogue) {}

  [[nodiscard]] Result build(std::int64_t timeMs, const DpIdValueList& values);

 private:
  struct Place {
    std::uint64_t call = 0;
    std::uint32_t index = 0;
  };

  void leaveOutdated(Result& result) const;

  const Catalogue& catalogue_;
  std::vector<Place> places_;            // by element: where it stands in the batch of the call
  std::vector<std::uint32_t> outdated_;  // positions in that batch, some more than once; scratch of build()
  std::uint64_t call_ = 0;
};

}  // namespace pvss
