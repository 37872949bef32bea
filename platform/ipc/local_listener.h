#pragma once

#include <asio/steady_timer.hpp>

#include <chrono>
#include <list>
#include <memory>
#include <optional>
#include <string>

#include "platform/ipc/listening_socket.h"
#include "platform/ipc/local_connection.h"
#include "platform/ipc_listener.h"
#include "platform/process/event_loops.h"
#include "platform/report.h"

namespace corvane {

/// A listener on the stream socket `path`, with the limits that go with who may connect. Main thread; once the
/// queue has its thread, everything happens there. A request goes one way: the listening socket accepts a
/// connection, the delegate sets it up, the listener waits until its socket is ready and then has the connection
/// receive, serve and send. Nothing calls back up.
class LocalListener final : public IpcListener {
 public:
  /// The queue must outlive the listener.
  LocalListener(std::string path, IpcAccess access, RequestQueue& queue);
  /// Ends the queue's thread, so that nothing of the listener runs any more, and closes all connections.
  ~LocalListener() override;

  void set_delegate(IpcListenerDelegate& delegate) override { delegate_ = &delegate; }
  void resume() override;

 private:
  struct Policy {
    mode_t socket_mode;
    uint32_t request_limit;
    size_t connection_limit;
    bool evicts;  ///< the connection idle for longest makes room for a new one
  };
  struct Client;
  using Clients = std::list<std::shared_ptr<Client>>;
  using time_point = std::chrono::steady_clock::time_point;
  using duration = std::chrono::steady_clock::duration;

  static Policy policy_for(IpcAccess access);

  void rearm();
  void admit(ListeningSocket::Socket socket);
  void admit_pending();
  bool make_room();
  void make_room_after(duration delay);
  void set_up(ListeningSocket::Socket socket);
  void evict_idle();

  void serve(Client& client, bool readable);
  bool serve_requests(Client& client);
  void send(Client& client);
  bool count_output(Client& client);
  void wait_for(Client& client);
  void close(Client& client, const char* fault);
  void became_active(Client& client);

  bool is_well_over_budget() const;
  void start_ticking();
  void tick();
  template <class Visit>
  void for_each_client(Visit visit);

  const Policy policy_;
  RequestQueue& queue_;
  IpcListenerDelegate* delegate_ = nullptr;

  ListeningSocket listening_;
  asio::steady_timer room_timer_;
  asio::steady_timer tick_timer_;
  bool ticking_ = false;

  std::optional<ListeningSocket::Socket> pending_;  ///< accepted, and waiting for room
  time_point pending_since_;
  Clients clients_;            ///< the one idle for longest first
  size_t pending_output_ = 0;  ///< bytes of the answers that clients have not read whole
  bool over_budget_ = false;   ///< they were more than the budget, and have not come down to half of it

  RateLimitedReport refused_report_;
  RateLimitedReport closed_report_;
};

}  // namespace corvane
