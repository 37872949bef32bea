#include "platform/ipc/local_listener.h"

#include <asio/steady_timer.hpp>

#include <algorithm>
#include <malloc.h>
#include <new>
#include <optional>
#include <utility>

#include "platform/ipc/listening_socket.h"
#include "platform/ipc/local_connection.h"
#include "platform/report.h"
#include "wire/limits.h"

// The listener that the daemon holds is a handle; the work is done by a LocalService on the request queue,
// which its pending socket and timer operations keep alive until the last of them has been told to stop.

namespace corvane {

namespace {

using Clock = std::chrono::steady_clock;

struct Policy {
  mode_t socket_mode;
  uint32_t request_limit;
  size_t connection_limit;
  bool evicts;  ///< the connection silent for longest makes room for a newcomer
};

Policy policy_for(IpcAccess access) {
  if (access == IpcAccess::owner) return {0600, wire::admin_request_limit, wire::admin_connection_limit, false};
  return {0666, wire::public_request_limit, connection_limits().public_connections, true};
}

using Socket = LocalConnection::Socket;

class LocalService final : public Host, public ConnectionOwner, public std::enable_shared_from_this<LocalService> {
 public:
  LocalService(std::string path, IpcAccess access, RequestQueue& queue, IpcListener& listener)
      : policy_(policy_for(access)),
        queue_(queue),
        listener_(listener),
        listening_(std::make_shared<ListeningSocket>(std::move(path), policy_.socket_mode, queue.context())) {}

  void set_delegate(IpcListenerDelegate& delegate) { delegate_ = &delegate; }
  void open();
  /// Goes on where memory ran out in the middle of something.
  void rearm();
  void shut_down();

  void take_newcomer(Socket socket) override;
  void descriptors_ran_out() override;

  void connection_was_active(LocalConnection& connection) override;
  void connection_has_deadline() override;
  void connection_closed(LocalConnection& connection, const char* reason) override;
  void output_grew(size_t bytes) override;
  void output_shrank(size_t bytes) override { output_ -= bytes; }
  bool takes_requests() const override { return !full_; }
  bool needs_room() const override { return full_ && output_ > wire::all_unread_output_limit / 2; }

 private:
  void admit_newcomer();
  bool make_room();
  void look_for_room_after(Clock::duration delay);
  void set_up(Socket socket);
  void tick();
  template <class Visit>
  void for_each_connection(Visit visit);

  const Policy policy_;
  RequestQueue& queue_;
  IpcListener& listener_;
  IpcListenerDelegate* delegate_ = nullptr;

  const std::shared_ptr<ListeningSocket> listening_;
  asio::steady_timer room_timer_{queue_.context()};
  asio::steady_timer tick_timer_{queue_.context()};
  bool ticking_ = false;
  bool shut_down_ = false;

  std::optional<Socket> newcomer_;  ///< accepted, and waiting for room
  Clock::time_point newcomer_since_;
  LocalConnection::List connections_;  ///< the one silent for longest first
  size_t output_ = 0;                  ///< bytes of the answers that were not read whole
  bool full_ = false;                  ///< there were too many, and there is no room yet

  RateLimitedReport refused_report_;
  RateLimitedReport closed_report_;
};

void LocalService::open() {
  if (!shut_down_) listening_->open(shared_from_this());
}

void LocalService::rearm() {
  listening_->rearm();
  admit_newcomer();
  if (!connections_.empty()) connection_has_deadline();
}

void LocalService::shut_down() {
  shut_down_ = true;
  listening_->shut_down();
  room_timer_.cancel();
  tick_timer_.cancel();
  newcomer_.reset();
  while (!connections_.empty()) connections_.front()->close();
}

// ---- newcomers ----------------------------------------------------------------------------------------

void LocalService::take_newcomer(Socket socket) {
  newcomer_ = std::move(socket);
  newcomer_since_ = Clock::now();
  admit_newcomer();
}

void LocalService::descriptors_ran_out() {
  if (!policy_.evicts || connections_.empty()) return;
  LocalConnection& oldest = *connections_.front();
  if (Clock::now() - oldest.silent_since >= wire::eviction_grace) oldest.close();
}

void LocalService::look_for_room_after(Clock::duration delay) {
  room_timer_.expires_after(delay);
  room_timer_.async_wait([self = shared_from_this()](const std::error_code& error) {
    if (!error && !self->shut_down_) self->admit_newcomer();
  });
}

void LocalService::admit_newcomer() {
  if (!newcomer_) return;
  if (!make_room()) return;
  try {
    set_up(*std::exchange(newcomer_, std::nullopt));
  } catch (const std::bad_alloc&) {
    report("out of memory: a newcomer was turned away");
  }
  listening_->accept_next();
}

// False: the newcomer has been turned away, or waits.
bool LocalService::make_room() {
  if (connections_.size() < policy_.connection_limit) return true;
  if (!policy_.evicts) {
    newcomer_.reset();
    refused_report_("turned a newcomer away from %s: too many connections", listening_->path().c_str());
    listening_->accept_next();
    return false;
  }
  LocalConnection& oldest = *connections_.front();
  // Or has the newcomer waited for that long: connections that never fall silent must not shut everyone out.
  const Clock::duration grace_used = Clock::now() - std::min(oldest.silent_since, newcomer_since_);
  if (grace_used < wire::eviction_grace) {
    look_for_room_after(wire::eviction_grace - grace_used);
    return false;
  }
  oldest.close();
  return true;
}

void LocalService::set_up(Socket socket) {
  const auto connection =
      std::make_shared<LocalConnection>(std::move(socket), queue_, policy_.request_limit, *this);
  connection->place = connections_.insert(connections_.end(), connection);
  try {
    if (!delegate_->listener_shouldAcceptNewConnection(listener_, *connection)) connection->close();
  } catch (const std::bad_alloc&) {
    connection->close("out of memory");
  }
}

// ---- what connections tell ----------------------------------------------------------------------------

void LocalService::connection_was_active(LocalConnection& connection) {
  connection.silent_since = Clock::now();
  connections_.splice(connections_.end(), connections_, connection.place);
}

void LocalService::connection_closed(LocalConnection& connection, const char* reason) {
  if (reason != nullptr) closed_report_("closed a connection: %s", reason);
  connections_.erase(connection.place);
  // Its room goes to the newcomer that waits; the timer it waits on would only come later.
  if (newcomer_ && !shut_down_) look_for_room_after(Clock::duration::zero());
}

void LocalService::connection_has_deadline() {
  if (ticking_) return;
  tick_timer_.expires_after(LocalConnection::tick_interval);
  tick_timer_.async_wait([self = shared_from_this()](const std::error_code& error) {
    if (!error && !self->shut_down_) self->tick();
  });
  ticking_ = true;
}

void LocalService::output_grew(size_t bytes) {
  output_ += bytes;
  full_ |= output_ > wire::all_unread_output_limit;
}

// The one silent for longest first. The connection may go, or move to the end, where it is met again.
template <class Visit>
void LocalService::for_each_connection(Visit visit) {
  for (auto next = connections_.begin(); next != connections_.end();) {
    const std::shared_ptr<LocalConnection> connection = *next++;
    visit(*connection);
  }
}

void LocalService::tick() {
  ticking_ = false;
  bool more = false;
  for_each_connection([&more](LocalConnection& connection) { more |= connection.tick(); });
  if (full_ && !needs_room()) {
    full_ = false;
    more = true;
    for_each_connection([this](LocalConnection& connection) {
      if (!full_) connection.resume();
    });
  }
  if (more) return connection_has_deadline();
  // Nobody waits for anything now: what large answers took goes back to the system.
  malloc_trim(0);
}

// ---- the handle ---------------------------------------------------------------------------------------

class LocalListener final : public IpcListener {
 public:
  LocalListener(std::string path, IpcAccess access, RequestQueue& queue)
      : queue_(queue), service_(std::make_shared<LocalService>(std::move(path), access, queue, *this)) {
    queue_.rearm_with([weak = std::weak_ptr(service_)] {
      if (const auto service = weak.lock()) service->rearm();
    });
  }

  ~LocalListener() override {
    queue_.submit_and_wait([this] { service_->shut_down(); });
  }

  void set_delegate(IpcListenerDelegate& delegate) override { service_->set_delegate(delegate); }
  void resume() override {
    queue_.submit([service = service_] { service->open(); });
  }

 private:
  RequestQueue& queue_;
  const std::shared_ptr<LocalService> service_;
};

}  // namespace

std::unique_ptr<IpcListener> create_local_listener(std::string path, IpcAccess access, RequestQueue& queue) {
  return std::make_unique<LocalListener>(std::move(path), access, queue);
}

}  // namespace corvane
