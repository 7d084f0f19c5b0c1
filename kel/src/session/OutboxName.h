// One publication name on the publishing side: who in this process publishes it, and whether it may.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "session/Outbox.h"

namespace kel {

struct OutboxName {
  OutboxName(std::string publicationName, std::string codedName, std::shared_ptr<SendBook> sendBook)
      : publication(std::move(publicationName)), coded(std::move(codedName)), book(std::move(sendBook)) {}

  const std::string publication;
  const std::string coded;
  const std::shared_ptr<SendBook> book;
  std::string dataTopic;
  PublicationState state = PublicationState::unclaimed;
  std::vector<std::shared_ptr<PublicationHandle>> handles;  ///< the first is active, the others wait for it
  bool published = false;                                   ///< something went out under this name
  bool mustClose = false;   ///< destroyed while it was not known whose name it is
  bool claimTaken = false;  ///< the broker has acknowledged the claim; its echo is due since claimTakenAt
  PeerTable::Time claimTakenAt;
  bool claimSubscribed = false;  ///< asked the broker for the claims on it

  std::int64_t attempt = 0;   ///< of the claim that waits for its echo
  std::string rival;          ///< claiming: who was there earlier; waiting: who has the name
  bool rivalIsOwner = false;  ///< it has said that it owns the name
  bool lossTold = false;
  std::optional<ClaimPayload> unheard;  ///< the last claim, if it is of somebody who is not known to live
  PeerTable::Time waitingSince;
};

}  // namespace kel
