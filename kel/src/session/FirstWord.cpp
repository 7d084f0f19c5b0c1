#include "session/FirstWord.h"

#include <algorithm>

namespace kel {

void FirstWord::created(Time now) {
  if (!any_ || quiet(now)) begun_ = now;
  any_ = true;
  last_ = now;
}

void FirstWord::forgive(std::chrono::nanoseconds pause) {
  const auto span = std::chrono::duration_cast<Time::duration>(pause);
  begun_ += span;
  last_ += span;
}

bool FirstWord::quiet(Time now) const {
  return now - last_ >= std::max<Time::duration>(shortest, last_ - begun_);
}

bool FirstWord::due(Time created, Time now) const {
  return quiet(now) || now - created >= longest;
}

}  // namespace kel
