#pragma once

#include <asio/steady_timer.hpp>

#include <chrono>
#include <functional>
#include <list>
#include <memory>
#include <optional>
#include <string>

#include "platform/ipc/listening_socket.h"
#include "platform/ipc/local_connection.h"
#include "platform/ipc/passed_descriptors.h"
#include "platform/ipc/share_table.h"
#include "platform/ipc/shared_answers.h"
#include "platform/ipc_listener.h"
#include "platform/process/event_loops.h"
#include "platform/report.h"

namespace corvane {

/// A listener on the stream socket `path`, with the limits that go with who may connect. Main thread; once the
/// queue has its thread, everything happens there.
///
/// A request goes one way. The listening socket accepts a connection, the share table admits it, the delegate sets
/// it up. What the event loop has read goes to the connection; once a request has come whole it waits for its
/// turn; in its turn it is served, and its answer is sent. Nothing calls back up.
class LocalListener final : public IpcListener {
 public:
  /// What the service manager has handed over, or -1, and whom to tell when clients can connect; may be null.
  struct Start {
    int handed_over = -1;
    std::function<void()> listening;
  };

  /// Queue and closer must outlive the listener. Throws std::system_error where the kernel refuses.
  LocalListener(std::string path, IpcAccess access, RequestQueue& queue, SocketCloser& closer, Start start);
  /// Ends the queue's thread, so that nothing of the listener runs any more, and closes all connections.
  ~LocalListener() override;

  void set_delegate(IpcListenerDelegate& delegate) override { delegate_ = &delegate; }
  void resume() override;
  ConnectionCounts counts() const override;

 private:
  struct Policy {
    mode_t socket_mode;
    uint32_t request_limit;
    size_t connection_limit;
    bool shares;  ///< a full table makes room for a new connection
  };
  struct Client;

  static Policy policy_for(IpcAccess access);

  void rearm();
  void admit(int socket);
  Client* add_client(int socket);
  bool make_room(PeerIdentity peer);
  void make_room_for_descriptors();
  void set_up(Client& client, PeerIdentity peer);
  void close(Client& client, std::optional<CloseReason> reason);
  void drop_closed();

  void await_events(Client& client);
  void await_input(Client& client);
  void await_output(Client& client);
  template <class Step>
  void handle_event(Client& client, Step step);

  void work();
  void work_later();
  void post_work();
  void serve_turns();
  void send_answers();
  template <class Step>
  void run(Client& client, Step step);
  void serve(Client& client);
  void send(Client& client);
  void settle(Client& client);

  void count_memory(Client& client);
  bool over_budget() const;
  void measure_kernel_buffers();

  void start_ticking();
  void tick();

  const Policy policy_;
  RequestQueue& queue_;
  SocketCloser& closer_;
  IpcListenerDelegate* delegate_ = nullptr;

  SharedAnswers answers_;
  ShareTable shares_;
  std::list<Client> clients_;
  std::list<Client> served_;  ///< those of them that have just been served, and whose answers are to be sent
  std::list<Client> closed_;  ///< dropped once no handler and no work under way refers to them
  size_t memory_ = 0;         ///< of all connections, without the answers they share

  ListeningSocket listening_;
  asio::steady_timer tick_timer_;
  asio::steady_timer turns_timer_;
  std::chrono::steady_clock::time_point next_turns_{};  ///< no request is served before
  bool awaits_turns_ = false;                           ///< the timer will call `work`
  bool posted_ = false;                                 ///< the event loop will
  bool ticking_ = false;
  unsigned ticks_since_trim_ = 0;

  ConnectionCounts counts_;  ///< without the open connections and their limit
  RateLimitedReport refused_report_;
  RateLimitedReport evicted_report_;
  RateLimitedReport closed_report_;
};

}  // namespace corvane
