#include "session/SubscribeWindow.h"

#include <algorithm>

namespace kel {
namespace {

constexpr std::size_t mostUnderWay = 64;

}  // namespace

void SubscribeWindow::request(const std::string& filter, int qos) {
  if (!up_) return;
  waiting_.push_back({filter, qos});
  pump();
}

bool SubscribeWindow::room() const {
  return up_ && waiting_.empty() && underWay_.size() < mostUnderWay;
}

void SubscribeWindow::cancel(const std::string& filter) {
  if (!up_) return;
  std::erase_if(waiting_, [&](const Wanted& wanted) { return wanted.filter == filter; });
  transport_.unsubscribe(filter);
}

void SubscribeWindow::linkUp() {
  up_ = true;
  waiting_.clear();
  underWay_.clear();
}

void SubscribeWindow::linkDown() {
  up_ = false;
  waiting_.clear();
  underWay_.clear();
}

std::string SubscribeWindow::answered(std::uint64_t token) {
  const auto at = underWay_.find(token);
  if (at == underWay_.end()) return {};
  std::string filter = std::move(at->second);
  underWay_.erase(at);
  pump();
  return filter;
}

void SubscribeWindow::pump() {
  while (up_ && !waiting_.empty() && underWay_.size() < mostUnderWay) {
    const Wanted& next = waiting_.front();
    const std::uint64_t token = nextToken_++;
    if (!transport_.subscribe(next.filter, next.qos, token)) return;
    underWay_.emplace(token, next.filter);
    waiting_.pop_front();
  }
}

}  // namespace kel
