// KelPublicationErrorHandler: what a publisher implements to hear of trouble.
#pragma once

#include <kel/KelException.h>
#include <kel/KelPublication.h>

/// Owned by the application; must live until destroyPublication has returned. Called on the library's own
/// threads only, never from inside a call that the application makes, never after destroyPublication has
/// returned. What a call throws is caught and counted by the library.
class KelPublicationErrorHandler {
 public:
  virtual ~KelPublicationErrorHandler() = default;
  /// Once for each time that the publication cannot work: another live publisher owns it or this publisher's
  /// name, its name is impossible, or the broker refused a record. The publication takes over by itself when
  /// the other one is gone. Not when this process gives way to another one of its name because all of its
  /// own records are bad: the library's log says so, once for all publications.
  virtual void handleException(KelPublication* publication, KelException& exception) = 0;
};
