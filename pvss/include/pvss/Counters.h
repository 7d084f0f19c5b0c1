// Counters: what became of every value that the manager was given to write.
//
// Purpose    A snapshot, taken with Manager::getCounters(). Not part of the platform contract: tools and
//            tests read it, the gateway's units do not.
// Units      Writes are counted in attribute writes: one (identifier, value) pair of a dpSetTimed call is
// one.
//            At every moment
//              queued = confirmed + coalesced + dropped + rejected + pending,
//            and whenever nothing is on its way to the store
//              settled = applied + refused + lost
//            where applied and refused are what the store itself has counted of this writer.
#pragma once

#include <cstdint>

namespace pvss {

struct Counters {
  std::uint64_t queued = 0;     ///< handed to dpSetTimed
  std::uint64_t confirmed = 0;  ///< in the store
  std::uint64_t coalesced = 0;  ///< given up for a newer write of the same attribute
  std::uint64_t dropped = 0;   ///< discarded: another manager took the number, or the element has got another
                               ///< address or type since it was resolved
  std::uint64_t rejected = 0;  ///< not writable: unknown identifier, wrong type, refused by the store
  std::uint64_t pending = 0;   ///< waiting in the backlog, handed over or not

  std::uint64_t settled = 0;  ///< answered by the store for good, once each, with the invalid flags that a
                              ///< value alone clears; restored ones are not counted again
  std::uint64_t lost = 0;     ///< settled, and not known any more when the store was back

  std::uint64_t calls = 0;     ///< dpSetTimed calls
  std::uint64_t handed = 0;    ///< attribute writes handed to the store, resent ones each time
  std::uint64_t resent = 0;    ///< attribute writes handed over again after a reconnect
  std::uint64_t restored = 0;  ///< newest values written again because the store had lost them

  std::uint64_t hotLinks = 0;      ///< hot-link groups delivered
  std::uint64_t answers = 0;       ///< answers delivered
  std::uint64_t backlogBytes = 0;  ///< estimated size of the backlog now
  std::uint64_t backlogBytesHigh = 0;
  std::uint64_t pendingHigh = 0;
  std::uint64_t callsHigh = 0;  ///< most dpSetTimed calls between two dispatches: what an application that
                                ///< writes all it has in every turn had waiting at most
  std::uint64_t deliveriesHigh = 0;     ///< most callbacks ever waiting for dispatch
  std::uint64_t deliveryBytesHigh = 0;  ///< and their most bytes
  std::uint64_t storeLosses = 0;        ///< times that the store went away
};

}  // namespace pvss
