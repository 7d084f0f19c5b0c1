// SubscribeWindow: subscribes to many topics without asking the broker for more than it can queue at once.
//
// A broker answers a subscription with the messages it has kept, and drops what does not fit into its queue
// for this client. So only so many subscriptions are under way at a time. Not thread-safe: under the
// session's lock.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <string>

#include "transport/KelTransport.h"

namespace kel {

class SubscribeWindow {
 public:
  explicit SubscribeWindow(KelTransport& transport) : transport_(transport) {}

  /// Nothing happens while the link is down: who wants a topic asks again when it is up.
  void request(const std::string& filter, int qos);
  /// Whether a request would leave at once.
  [[nodiscard]] bool room() const;
  void cancel(const std::string& filter);
  void linkUp();
  void linkDown();
  /// The filter that the broker has answered; empty when the answer is not for this window.
  std::string answered(std::uint64_t token);

 private:
  void pump();

  struct Wanted {
    std::string filter;
    int qos;
  };
  KelTransport& transport_;
  bool up_ = false;
  std::uint64_t nextToken_ = 1;
  std::deque<Wanted> waiting_;
  std::map<std::uint64_t, std::string> underWay_;
};

}  // namespace kel
