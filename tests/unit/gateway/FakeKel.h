// FakeKel: a Kel library that only remembers what it was asked to do, and lets a test speak for it.
//
// Ownership  The factory owns its handles, released ones too, so that a test can still look at them.
// Thread     The calls may come from any thread; a test looks at them when none runs.
#pragma once

#include <kel/KelFactory.h>
#include <kel/testing/KelDataBuilder.h>

#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

class FakeKelFactory final : public KelFactory {
 public:
  class Subscription final : public KelSubscription {
   public:
    Subscription(FakeKelFactory& factory, const char* name, KelSubscriptionListener* listenerGiven)
        : listener(listenerGiven), factory_(factory), name_(name) {}
    ~Subscription() override = default;
    void requestResend() override { factory_.note("resend " + name_); }
    [[nodiscard]] const char* getTopicName() const override { return name_.c_str(); }
    KelSubscriptionListener* listener;

   private:
    FakeKelFactory& factory_;
    std::string name_;
  };

  /// What was sent: the record, or why it was declared bad.
  struct Sent {
    std::string publication;
    bool good = false;
    KelData data;
    std::int64_t timeNanoseconds = 0;
    std::string reason;
  };

  class Publication final : public KelPublication {
   public:
    Publication(FakeKelFactory& factory, const char* name, KelPublicationErrorHandler* handlerGiven)
        : handler(handlerGiven), factory_(factory), name_(name) {}
    ~Publication() override = default;
    [[nodiscard]] const char* getTopicName() const override { return name_.c_str(); }
    void send(const KelData& data, const KelTimestamp& timestamp) override {
      factory_.tell("send " + name_);
      const std::scoped_lock guard(factory_.mutex_);
      factory_.sent_.push_back({name_, true, data, timestamp.timeNanoseconds, ""});
    }
    void declareBad(const char* reason) override {
      factory_.tell("declare bad " + name_);
      const std::scoped_lock guard(factory_.mutex_);
      factory_.sent_.push_back({name_, false, KelData(), 0, reason});
    }
    KelPublicationErrorHandler* handler;

   private:
    FakeKelFactory& factory_;
    std::string name_;
  };

  KelSubscription* createSubscription(const char* publication, KelSubscriptionListener* listener) override {
    note(std::string("subscribe ") + publication);
    if (failing) {
      throw KelException("no");
    }
    subscriptions_.push_back(std::make_unique<Subscription>(*this, publication, listener));
    return subscriptions_.back().get();
  }
  void releaseSubscription(KelSubscription* subscription) override {
    note(std::string("release ") + subscription->getTopicName());
    static_cast<Subscription*>(subscription)->listener = nullptr;
  }
  KelPublication* createPublication(const char* publication, KelPublicationErrorHandler* handler) override {
    note(std::string("publish ") + publication);
    if (failing) {
      throw KelException("no");
    }
    publications_.push_back(std::make_unique<Publication>(*this, publication, handler));
    return publications_.back().get();
  }
  void destroyPublication(KelPublication* publication) override {
    note(std::string("close ") + publication->getTopicName());
  }
  KelData* createData() override { return new KelData; }
  bool flush(std::chrono::milliseconds /*limit*/) override { return true; }
  [[nodiscard]] KelCounters counters() const override { return {}; }
  [[nodiscard]] KelCounters counters(const char* /*publication*/) const override { return {}; }
  [[nodiscard]] KelLedger ledger() const override { return {}; }
  [[nodiscard]] const char* incarnation() const override { return "fake"; }

  /// The handle of the newest live subscription to the publication; null when there is none.
  [[nodiscard]] Subscription* subscription(const std::string& publication) const {
    for (auto next = subscriptions_.rbegin(); next != subscriptions_.rend(); ++next) {
      if ((*next)->listener != nullptr && publication == (*next)->getTopicName()) {
        return next->get();
      }
    }
    return nullptr;
  }
  [[nodiscard]] const std::vector<std::unique_ptr<Publication>>& publications() const {
    return publications_;
  }
  /// Everything asked for since the last look, in order.
  std::vector<std::string> takeCalls() {
    const std::scoped_lock guard(mutex_);
    return std::exchange(calls_, {});
  }
  std::vector<Sent> takeSent() {
    const std::scoped_lock guard(mutex_);
    return std::exchange(sent_, {});
  }
  [[nodiscard]] std::size_t sentCount() {
    const std::scoped_lock guard(mutex_);
    return sent_.size();
  }

  bool failing = false;  ///< subscriptions and publications are refused with an exception
  /// Told of every call while it is made, and of "send NAME" and "declare bad NAME".
  std::function<void(const std::string&)> onCall;

 private:
  void tell(const std::string& call) const {
    if (onCall) {
      onCall(call);
    }
  }
  void note(std::string call) {
    tell(call);
    const std::scoped_lock guard(mutex_);
    calls_.push_back(std::move(call));
  }

  std::mutex mutex_;
  std::vector<std::string> calls_;
  std::vector<Sent> sent_;
  std::vector<std::unique_ptr<Subscription>> subscriptions_;
  std::vector<std::unique_ptr<Publication>> publications_;
};
