#include "platform/process/service_manager.h"

#include <cstdlib>
#include <systemd/sd-daemon.h>

namespace corvane {

ServiceManager::ServiceManager(MainLoop& main_loop, RequestQueue& request_queue)
    : main_loop_(main_loop), watchdog_timer_(request_queue.context()) {
  char** names = nullptr;
  const int count = sd_listen_fds_with_names(1, &names);
  for (int i = 0; i < count; ++i) {
    sockets_[names[i]] = std::make_unique<Descriptor>(SD_LISTEN_FDS_START + i);
    std::free(names[i]);
  }
  std::free(names);

  uint64_t microseconds = 0;
  if (sd_watchdog_enabled(1, &microseconds) > 0) watchdog_interval_ = std::chrono::microseconds(microseconds);
  main_loop_.at_end([] { sd_notify(0, "STOPPING=1\nSTATUS=Ending after the request that is running"); });
  request_queue.rearm_with([this] {
    if (ticking_) tick();
  });
}

int ServiceManager::take_socket(std::string_view name) {
  const auto found = sockets_.find(name);
  return found == sockets_.end() ? -1 : found->second->detach();
}

void ServiceManager::start() {
  main_loop_.submit([] { sd_notify(0, "READY=1\nSTATUS=Answering requests"); });
  if (!watchdog_interval_) return;
  ticking_ = true;
  tick();
}

void ServiceManager::tick() {
  watchdog_timer_.expires_after(*watchdog_interval_ / 3);
  watchdog_timer_.async_wait([this](const std::error_code& error) {
    if (!error) tick();
  });
  main_loop_.submit([] { sd_notify(0, "WATCHDOG=1"); });
}

}  // namespace corvane
