#pragma once

#include <chrono>
#include <string>

#include "client/client.h"
#include "wire/frame_reader.h"
#include "wire/messages.h"

namespace corvane::client {

/// A subscription to the system-wide notifications. Blocking; for one thread at a time.
class Subscription {
 public:
  explicit Subscription(const std::string& root = Connection::root_from_environment());

  /// Connects; to be called once. `next` then reads every notification that is posted after the daemon has
  /// accepted the connection. Of those that were dropped because too many were unread it reads the count. Returns
  /// `answered`; or, with the reason in `detail`, `refused`, `not_permitted`, or `timed_out` where the daemon has
  /// accepted no connection within `default_timeout`.
  Outcome open(std::string& detail);

  /// Waits for the next notification, for ever where `timeout` is `no_timeout`. Returns `answered`; `timed_out`
  /// where none had come whole by then; or `closed` or `bad_answer` with the reason in `detail`: then no more will
  /// come.
  Outcome next(wire::Notification& notification, std::string& detail,
               std::chrono::milliseconds timeout = no_timeout);

  /// For the caller's own event loop, which waits until it is readable and then calls `next` with a timeout of 0
  /// until that returns `timed_out`. Valid after `open`; the subscription closes it.
  int descriptor() const { return socket_.descriptor(); }

  static constexpr std::chrono::milliseconds no_timeout = std::chrono::milliseconds::max();

 private:
  const std::string path_;
  wire::FrameReader reader_;
  Socket socket_;
};

}  // namespace corvane::client
