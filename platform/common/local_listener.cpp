#include "platform/common/local_listener.h"

#include <asio/steady_timer.hpp>

#include <algorithm>
#include <new>
#include <optional>
#include <sys/resource.h>
#include <utility>

#include "platform/common/listening_socket.h"
#include "platform/common/service_connection.h"
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

size_t public_connections() {
  rlimit descriptors{};
  getrlimit(RLIMIT_NOFILE, &descriptors);
  const rlim_t spare =
      descriptors.rlim_cur > wire::descriptor_reserve ? descriptors.rlim_cur - wire::descriptor_reserve : 1;
  return static_cast<size_t>(std::min<rlim_t>(wire::public_connection_limit, spare));
}

Policy policy_for(ServiceAccess access) {
  if (access == ServiceAccess::owner)
    return {0600, wire::admin_request_limit, wire::admin_connection_limit, false};
  return {0666, wire::public_request_limit, public_connections(), true};
}

class LocalService final : public ConnectionOwner, public std::enable_shared_from_this<LocalService> {
 public:
  LocalService(std::string path, ServiceAccess access, RequestQueue& queue, ServiceListener& listener)
      : policy_(policy_for(access)),
        queue_(queue),
        listener_(listener),
        listening_(std::make_shared<ListeningSocket>(std::move(path), policy_.socket_mode, queue.context())) {}

  void set_delegate(ServiceListenerDelegate& delegate) { delegate_ = &delegate; }
  void open();
  void shut_down();

  void connection_was_active(LocalConnection& connection) override;
  void connection_has_deadline() override;
  void connection_closed(LocalConnection& connection) override;

 private:
  using Socket = LocalConnection::Socket;

  void admit_newcomer();
  bool make_room();
  void look_for_room_after(Clock::duration delay);
  void set_up(Socket socket);
  void tick();

  const Policy policy_;
  RequestQueue& queue_;
  ServiceListener& listener_;
  ServiceListenerDelegate* delegate_ = nullptr;

  const std::shared_ptr<ListeningSocket> listening_;
  asio::steady_timer room_timer_{queue_.context()};
  asio::steady_timer tick_timer_{queue_.context()};
  bool ticking_ = false;
  bool shut_down_ = false;

  std::optional<Socket> newcomer_;  ///< accepted, and waiting for room
  Clock::time_point newcomer_since_;
  LocalConnection::List connections_;  ///< the one silent for longest first
};

void LocalService::open() {
  if (shut_down_) return;
  listening_->open([self = shared_from_this()](Socket socket) {
    self->newcomer_ = std::move(socket);
    self->newcomer_since_ = Clock::now();
    self->admit_newcomer();
  });
}

void LocalService::shut_down() {
  shut_down_ = true;
  listening_->shut_down();
  room_timer_.cancel();
  tick_timer_.cancel();
  newcomer_.reset();
  while (!connections_.empty()) connections_.front()->close("");
}

// ---- newcomers ----------------------------------------------------------------------------------------

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
    report("turned a newcomer away from " + listening_->path() + ": too many connections");
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
  oldest.close("");
  return true;
}

void LocalService::set_up(Socket socket) {
  const auto connection =
      std::make_shared<LocalConnection>(std::move(socket), queue_, policy_.request_limit, *this);
  connection->place = connections_.insert(connections_.end(), connection);
  try {
    if (!delegate_->listener_shouldAcceptNewConnection(listener_, *connection)) connection->close("");
  } catch (const std::bad_alloc&) {
    connection->close("out of memory");
  }
}

// ---- what connections tell ----------------------------------------------------------------------------

void LocalService::connection_was_active(LocalConnection& connection) {
  connection.silent_since = Clock::now();
  connections_.splice(connections_.end(), connections_, connection.place);
}

void LocalService::connection_closed(LocalConnection& connection) {
  connections_.erase(connection.place);
  // Its room goes to the newcomer that waits; the timer it waits on would only come later.
  if (newcomer_ && !shut_down_) look_for_room_after(Clock::duration::zero());
}

void LocalService::connection_has_deadline() {
  if (std::exchange(ticking_, true)) return;
  tick_timer_.expires_after(LocalConnection::tick_interval);
  tick_timer_.async_wait([self = shared_from_this()](const std::error_code& error) {
    if (!error && !self->shut_down_) self->tick();
  });
}

void LocalService::tick() {
  ticking_ = false;
  bool more = false;
  for (auto next = connections_.begin(); next != connections_.end();) {
    const std::shared_ptr<LocalConnection> connection = *next++;
    more |= connection->tick();
  }
  if (more) connection_has_deadline();
}

// ---- the handle ---------------------------------------------------------------------------------------

class LocalListener final : public ServiceListener {
 public:
  LocalListener(std::string path, ServiceAccess access, RequestQueue& queue)
      : queue_(queue), service_(std::make_shared<LocalService>(std::move(path), access, queue, *this)) {}

  ~LocalListener() override {
    queue_.submit_and_wait([this] { service_->shut_down(); });
  }

  void set_delegate(ServiceListenerDelegate& delegate) override { service_->set_delegate(delegate); }
  void resume() override {
    queue_.submit([service = service_] { service->open(); });
  }

 private:
  RequestQueue& queue_;
  const std::shared_ptr<LocalService> service_;
};

}  // namespace

std::unique_ptr<ServiceListener> create_local_listener(std::string path, ServiceAccess access,
                                                       RequestQueue& queue) {
  return std::make_unique<LocalListener>(std::move(path), access, queue);
}

}  // namespace corvane
