#include "transport/loopback/LoopbackTransport.h"

#include "transport/loopback/LoopbackBroker.h"

namespace kel {
namespace {

class LoopbackTransport final : public KelTransport {
 public:
  explicit LoopbackTransport(const KelUrl& url)
      : broker_(LoopbackBroker::named(url.brokerName)), keepAlive_(url.keepAlive) {}
  ~LoopbackTransport() override { end(false); }
  LoopbackTransport(const LoopbackTransport&) = delete;
  LoopbackTransport& operator=(const LoopbackTransport&) = delete;

  void start(TransportListener& listener, TransportIdentity identity) override {
    // Under the lock, because the listener may use the transport before attach() is back.
    const MutexLock lock(mutex_);
    client_ = broker_->attach(listener, std::move(identity), keepAlive_);
  }
  void stop(bool clean) override { end(clean); }

  bool publish(const OutgoingMessage& message, std::uint64_t token) override {
    const auto link = client();
    return link && broker_->publish(link, message, token);
  }
  bool subscribe(const std::string& filter, int /*qos*/, std::uint64_t token) override {
    const auto link = client();
    return link && broker_->subscribe(link, filter, token);
  }
  bool unsubscribe(const std::string& filter) override {
    const auto link = client();
    return link && broker_->unsubscribe(link, filter);
  }
  [[nodiscard]] std::chrono::seconds keepAlive() const override { return keepAlive_; }

 private:
  std::shared_ptr<LoopbackBroker::Client> client() {
    const MutexLock lock(mutex_);
    return client_;
  }
  void end(bool clean) {
    std::shared_ptr<LoopbackBroker::Client> last;
    {
      const MutexLock lock(mutex_);
      last = std::move(client_);
    }
    if (last) broker_->detach(last, clean);
  }

  const std::shared_ptr<LoopbackBroker> broker_;
  const std::chrono::seconds keepAlive_;
  Mutex mutex_;
  std::shared_ptr<LoopbackBroker::Client> client_ KEL_GUARDED_BY(mutex_);
};

}  // namespace

std::unique_ptr<KelTransport> makeLoopbackTransport(const KelUrl& url) {
  return std::make_unique<LoopbackTransport>(url);
}

}  // namespace kel
