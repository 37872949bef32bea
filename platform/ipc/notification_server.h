#pragma once

#include <memory>
#include <string>

#include "platform/notifications.h"
#include "platform/process/event_loops.h"

namespace corvane {

/// Notifications for the programs that are connected to a stream socket. A post first accepts who is waiting.
/// A subscriber that stops reading loses what is posted past a bound, and is told how many that were before
/// it gets the next one.
class NotificationServer final : public Notifications {
 public:
  /// The queue must outlive this.
  NotificationServer(std::string path, RequestQueue& queue);
  /// Takes the socket away and closes the connections.
  ~NotificationServer() override;

  void resume() override;
  void post(const plist::String& name) override;

 private:
  class Hub;

  RequestQueue& queue_;
  const std::shared_ptr<Hub> hub_;
};

}  // namespace corvane
