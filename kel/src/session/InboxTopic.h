// What the files of the inbox know of one subscribed topic.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "session/Inbox.h"

namespace kel {

/// One subscribed topic.
struct InboxTopic {
  explicit InboxTopic(Dispatcher& dispatcher) : books(dispatcher) {}

  std::string publication;
  std::string topic;
  SubscriptionState state = SubscriptionState::waiting;
  std::string publisher;                    ///< who it is connected through; stays when disconnected
  bool silent = true;                       ///< nothing has come since the link is up
  bool unheard = false;                     ///< disconnected because `publisher` was not heard of in time
  std::optional<PeerTable::Time> answered;  ///< the broker has taken the subscription, on this link
  std::string refusal;                      ///< or why it has not
  std::shared_ptr<Record> last;
  std::shared_ptr<Record> held;
  ReceiveBook books;
  std::vector<std::shared_ptr<SubscriptionHandle>> subscriptions;
  std::shared_ptr<HandOffTally> tally = std::make_shared<HandOffTally>();  ///< of what listeners throw
  std::optional<PeerTable::Time> complained;
  std::int64_t unsaid = 0;
};

}  // namespace kel
