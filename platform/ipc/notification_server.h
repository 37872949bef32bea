#pragma once

#include <list>
#include <memory>
#include <string>

#include "platform/ipc/listening_socket.h"
#include "platform/ipc/passed_descriptors.h"
#include "platform/ipc/share_table.h"
#include "platform/notifications.h"
#include "platform/process/event_loops.h"
#include "platform/report.h"

namespace corvane {

/// Sends notifications to the programs that are connected to a stream socket. A post first accepts the connections
/// in the backlog. When all places of subscribers are taken, the user with the most makes room (see ShareTable). A
/// subscriber that stops reading misses what is posted past a limit, and is told how many that were before it gets
/// the next one.
class NotificationServer final : public Notifications {
 public:
  /// Queue and closer must outlive this. Owns the socket `handed_over` by the service manager, unless that is -1.
  NotificationServer(std::string path, int handed_over, RequestQueue& queue, SocketCloser& closer);
  /// Ends the queue's thread, so that nothing of this runs any more, takes the socket away and closes all
  /// connections.
  ~NotificationServer() override;

  void resume() override;
  /// A notification for which memory runs out is lost to the subscribers that have not got it yet.
  void post(const plist::String& name) override;
  NotificationCounts counts() const override;

 private:
  class Subscriber;

  void send_to_all(const plist::String& name);
  void admit(int accepted);
  bool make_room(PeerIdentity peer);
  void drop_disconnected();

  RequestQueue& queue_;
  SocketCloser& closer_;
  ListeningSocket listening_;
  ShareTable shares_;
  std::list<std::shared_ptr<Subscriber>> subscribers_;
  NotificationCounts counts_;  ///< without the open connections
  RateLimitedReport refused_report_;
};

}  // namespace corvane
