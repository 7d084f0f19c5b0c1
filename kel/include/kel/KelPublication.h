// KelPublication: the handle of one publication that this process wants to own.
#pragma once

#include <kel/KelData.h>
#include <kel/KelTimestamp.h>

/// Made by KelFactory::createPublication, ended by KelFactory::destroyPublication, owned by the factory in
/// between. Any thread. Nothing here blocks or throws: while the broker is away, or another live publisher
/// owns the name, records wait; the newest is always kept and the others are counted as superseded.
class KelPublication {
 public:
  /// The name given to createPublication; valid as long as the handle.
  [[nodiscard]] virtual const char* getTopicName() const = 0;

  /// Publishes a copy of the record with quality 1 and this time.
  virtual void send(const KelData& data, const KelTimestamp& timestamp) = 0;

  /// Publishes the last sent fields once more with quality 0, the reason and the time of this call; before
  /// the first send a record without fields and quality -1. A null reason is "".
  virtual void declareBad(const char* reason) = 0;

 protected:
  virtual ~KelPublication() = default;
};
