#pragma once

#include <string>

#include "client/client.h"
#include "wire/frame_reader.h"
#include "wire/messages.h"

namespace corvane::client {

/// A subscription to the system-wide notifications. Blocking; for one thread at a time.
class Subscription {
 public:
  explicit Subscription(const std::string& root = Connection::root_from_environment());
  ~Subscription();
  Subscription(const Subscription&) = delete;
  Subscription& operator=(const Subscription&) = delete;

  /// Connects; to be called once. `next` then reads every notification that is posted after the daemon has
  /// accepted the connection. Of those that were dropped because too many were unread it reads the count. Returns
  /// `answered`, or `refused` with the reason in `detail`.
  Outcome open(std::string& detail);

  /// Waits for the next notification, without a timeout. Returns `answered`, or `closed` or `bad_answer` with the
  /// reason in `detail`: then no more will come.
  Outcome next(wire::Notification& notification, std::string& detail);

 private:
  const std::string path_;
  wire::FrameReader reader_;
  int socket_ = -1;
};

}  // namespace corvane::client
