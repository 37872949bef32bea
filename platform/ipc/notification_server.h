#pragma once

#include <list>
#include <memory>
#include <string>

#include "platform/ipc/listening_socket.h"
#include "platform/notifications.h"
#include "platform/process/event_loops.h"
#include "platform/report.h"

namespace corvane {

/// Sends notifications to the programs that are connected to a stream socket. A post first accepts the connections
/// in the backlog. A subscriber that stops reading misses what is posted past a limit, and is told how many that
/// were before it gets the next one.
class NotificationServer final : public Notifications {
 public:
  /// The queue must outlive this.
  NotificationServer(std::string path, RequestQueue& queue);
  /// Ends the queue's thread, so that nothing of this runs any more, takes the socket away and closes all
  /// connections.
  ~NotificationServer() override;

  void resume() override;
  /// A notification for which memory runs out is lost to the subscribers that have not got it yet.
  void post(const plist::String& name) override;

 private:
  class Subscriber;

  void send_to_all(const plist::String& name);
  void accept_backlog();
  void add(ListeningSocket::Socket socket);
  void drop_disconnected();

  RequestQueue& queue_;
  ListeningSocket listening_;
  const size_t limit_ = connection_limits().subscribers;
  std::list<std::shared_ptr<Subscriber>> subscribers_;
  RateLimitedReport refused_report_;
};

}  // namespace corvane
