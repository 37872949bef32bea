#pragma once

#include <string>

#include "client/client.h"
#include "wire/frame_reader.h"
#include "wire/messages.h"

namespace corvane::client {

/// A subscription to the system-wide notifications. Blocking; one thread at a time.
class Subscription {
 public:
  explicit Subscription(const std::string& root = Connection::root_from_environment());
  ~Subscription();
  Subscription(const Subscription&) = delete;
  Subscription& operator=(const Subscription&) = delete;

  /// Connects. From then on every notification that is posted is waited for, up to what the daemon keeps for
  /// a subscriber that does not read. `answered`, or why not with one line in `detail`.
  Outcome open(std::string& detail);

  /// Waits for the next notification. `answered`, or why there is no more with one line in `detail`.
  Outcome next(wire::Notification& notification, std::string& detail);

 private:
  const std::string path_;
  wire::FrameReader reader_;
  int socket_ = -1;
};

}  // namespace corvane::client
