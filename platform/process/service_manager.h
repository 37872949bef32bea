#pragma once

#include <asio/steady_timer.hpp>

#include <chrono>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "platform/descriptor.h"
#include "platform/process/event_loops.h"

namespace corvane {

/// The service manager that started this process, by the protocols of sd_listen_fds(3), sd_notify(3) and
/// sd_watchdog_enabled(3). Without one there are no sockets and no watchdog, and nothing is told. What is told may
/// have to wait for the manager, and so is told on the main thread.
class ServiceManager {
 public:
  /// Takes over the sockets that were handed over, and the environment variables that say so. Both loops must
  /// outlive this. Main thread, before there is another.
  ServiceManager(MainLoop& main_loop, RequestQueue& request_queue);

  /// Gives away the socket of this name (FileDescriptorName= of its unit). -1 where there is none.
  int take_socket(std::string_view name);

  /// Tells that the daemon answers clients, and from now on, as often as the watchdog wants it, that the request
  /// queue is not stuck. Request queue, once.
  void start();

 private:
  void tick();

  MainLoop& main_loop_;
  std::map<std::string, std::unique_ptr<Descriptor>, std::less<>> sockets_;
  std::optional<std::chrono::microseconds> watchdog_interval_;
  asio::steady_timer watchdog_timer_;
  bool ticking_ = false;
};

}  // namespace corvane
