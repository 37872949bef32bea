#pragma once

#include <cstdint>

#include "platform/connection_counts.h"
#include "plist/value.h"

namespace corvane {

/// What was posted since start-up.
struct NotificationCounts {
  ConnectionCounts subscribers;
  uint64_t posted = 0;
  uint64_t missed = 0;  ///< by subscribers that did not read; counted for each of them
};

/// System-wide notifications: whoever has subscribed hears each one that is posted from then on.
class Notifications {
 public:
  virtual ~Notifications() = default;

  /// From now on programs can subscribe. Main thread, once.
  virtual void resume() = 0;

  /// Posts at once, and never waits for a subscriber. Request queue, or start-up.
  virtual void post(const plist::String& name) = 0;

  /// Request queue.
  virtual NotificationCounts counts() const = 0;
};

}  // namespace corvane
