// KelSubscription: the handle of one interest in one publication.
#pragma once

/// Made by KelFactory::createSubscription, ended by KelFactory::releaseSubscription, owned by the factory in
/// between. Any thread.
class KelSubscription {
 public:
  /// Asks for the publication's last record once more, for this subscription alone. It arrives through
  /// handleMessage, in order and never behind a newer record; nothing arrives while there is none. Never
  /// blocks.
  virtual void requestResend() = 0;

  /// The name given to createSubscription; valid as long as the handle.
  [[nodiscard]] virtual const char* getTopicName() const = 0;

 protected:
  virtual ~KelSubscription() = default;
};
