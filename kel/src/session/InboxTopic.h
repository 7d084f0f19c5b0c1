// What the files of the inbox know of one subscribed topic.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "kel/KelTimestamp.h"
#include "session/Inbox.h"
#include "session/Refetch.h"

namespace kel {

/// The newest record that counted; what is said of it stays when the record itself is given up.
struct LastRecord {
  bool known = false;
  std::shared_ptr<Record> record;  ///< null although known: given up, the broker has it
  std::string publisher;
  std::int64_t sequence = 0;
  KelTimestamp time;
  bool hasTime = false;

  void set(const std::shared_ptr<Record>& newest);
  void reset();
};

/// One subscribed topic.
struct InboxTopic {
  explicit InboxTopic(Dispatcher& dispatcher) : books(dispatcher) {}

  std::string publication;
  std::string topic;
  SubscriptionState state = SubscriptionState::waiting;
  std::string publisher;                    ///< who it is connected through; stays when disconnected
  bool silent = true;                       ///< nothing has come since the link is up
  bool unreadable = false;                  ///< what came last is no record
  bool unheard = false;                     ///< disconnected because `publisher` was not heard of in time
  std::optional<PeerTable::Time> answered;  ///< the broker has taken the subscription, on this link
  std::string refusal;                      ///< or why it has not
  Refetch::Place place;
  std::size_t keptBytes = 0;          ///< about what fetching costs
  std::optional<std::size_t> newest;  ///< hash of the payload that came last, on this link
  std::optional<std::size_t> kept;    ///< and of the last one that the broker had kept
  bool newestLive = false;
  std::optional<PeerTable::Time> asked;  ///< fetched out of turn
  int unanswered = 0;                    ///< times that it was fetched since anything came
  bool keeps = false;                    ///< what came live was kept, too
  LastRecord last;
  bool wanted = false;     ///< the last record is to be handed out again when the broker gives it
  std::string owed;        ///< whose held record was given up
  std::size_t weight = 0;  ///< on the shelf
  std::shared_ptr<Record> held;
  ReceiveBook books;
  std::vector<std::shared_ptr<SubscriptionHandle>> subscriptions;
  std::shared_ptr<HandOffTally> tally = std::make_shared<HandOffTally>();  ///< of what listeners throw
  std::optional<PeerTable::Time> complained;
  std::int64_t unsaid = 0;
};

/// What comes next is taken for news, even if it has come before.
void forgetPayloads(InboxTopic& topic);

}  // namespace kel
