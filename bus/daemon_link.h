#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <systemd/sd-event.h>

#include "bus/sd_pointers.h"
#include "bus/worker.h"
#include "client/subscription.h"

namespace corvane::bus {

/// How long the daemon may take for an answer.
inline constexpr std::chrono::seconds ask_timeout{2};
/// How many notifications are read before other events have their turn.
inline constexpr int notifications_per_turn = 64;
/// How long after a lost or refused connection it is tried again. Doubled each time, up to the longest. A
/// connection that has lasted for the longest time begins with the shortest again.
inline constexpr std::chrono::milliseconds shortest_retry{250};
inline constexpr std::chrono::milliseconds longest_retry{5000};

/// Follows the daemon: whether it is there, which version it has, and what it posts. It connects again by itself
/// after each loss, for ever. Belongs to the event loop.
class DaemonLink {
 public:
  struct Handlers {
    std::function<void()> changed;  ///< what `is_available` and `version` say
    std::function<void(const std::string& name)> notified;
    std::function<void(uint64_t count)> missed;  ///< so many notifications, which nobody else is told of
  };

  /// Throws std::system_error where the system refuses a thread.
  DaemonLink(sd_event& loop, Handlers handlers);

  /// Connects, unless it is connected or about to be.
  void connect();
  /// Stops or goes on reading notifications. The daemon counts what does not fit its buffers meanwhile. A handler
  /// may call it, and is given no more notifications when it has stopped reading.
  void set_reading(bool reads);

  bool is_available() const { return subscription_ != nullptr; }
  /// Empty while the daemon is not there, or where it does not tell.
  const std::string& version() const { return version_; }

 private:
  /// The result of connecting: a subscription and a version, or what went wrong.
  struct Connected {
    std::unique_ptr<client::Subscription> subscription;
    std::string version;
    std::string fault;
  };

  static Connected find_daemon();
  void take(Connected connected);
  void read();
  void read_on();
  void lose(const std::string& why);
  void retry_later();

  sd_event& loop_;
  const Handlers handlers_;
  Connected found_;  ///< the worker's while it is busy
  SourcePtr retry_timer_;
  std::unique_ptr<client::Subscription> subscription_;
  SourcePtr readable_;
  SourcePtr unread_;  ///< for notifications that the subscription holds already, and for which nothing is readable
  bool reads_ = true;
  std::string version_;
  std::chrono::milliseconds retry_delay_ = shortest_retry;
  std::chrono::steady_clock::time_point connected_at_;
  bool is_missed_ = false;  ///< that there is no daemon has been reported
  Worker worker_;           ///< the last, because its job may be running until it is destroyed
};

}  // namespace corvane::bus
