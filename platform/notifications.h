#pragma once

#include "plist/value.h"

namespace corvane {

/// System-wide notifications: whoever has subscribed hears each one that is posted from then on.
class Notifications {
 public:
  virtual ~Notifications() = default;

  /// From now on programs can subscribe. Main thread, once.
  virtual void resume() = 0;

  /// Posts at once, and never waits for a subscriber. Request queue, or start-up.
  virtual void post(const plist::String& name) = 0;
};

}  // namespace corvane
