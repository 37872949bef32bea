#include "platform/ipc/local_listener.h"

#include <algorithm>
#include <malloc.h>
#include <new>
#include <utility>

#include "wire/limits.h"

namespace corvane {

using std::chrono::steady_clock;
using Socket = ListeningSocket::Socket;

/// A connection, and what the listener keeps of it.
struct LocalListener::Client : std::enable_shared_from_this<Client> {
  Client(Socket socket, uint32_t request_limit) : connection(std::move(socket), request_limit) {}

  LocalConnection connection;
  time_point last_active = steady_clock::now();
  Clients::iterator place;
  size_t counted_output = 0;  ///< its part of pending_output_
  bool awaits_readable = false;
  bool awaits_writable = false;
  bool closed = false;  ///< and no longer in the list: what still waits for the socket keeps it alive for a while
};

LocalListener::Policy LocalListener::policy_for(IpcAccess access) {
  if (access == IpcAccess::owner) return {0600, wire::admin_request_limit, wire::admin_connection_limit, false};
  return {0666, wire::public_request_limit, connection_limits().public_connections, true};
}

LocalListener::LocalListener(std::string path, IpcAccess access, RequestQueue& queue)
    : policy_(policy_for(access)),
      queue_(queue),
      listening_(std::move(path), policy_.socket_mode, queue.context(),
                 {[this](Socket socket) { admit(std::move(socket)); }, [this] { evict_idle(); }}),
      room_timer_(queue.context()),
      tick_timer_(queue.context()) {
  queue_.rearm_with([this] { rearm(); });
}

LocalListener::~LocalListener() {
  queue_.stop();
  for (const auto& client : clients_) client->connection.close();
}

void LocalListener::resume() {
  queue_.submit([this] { listening_.open(); });
}

void LocalListener::rearm() {
  listening_.rearm();
  admit_pending();
  if (!clients_.empty()) start_ticking();
}

// ---- new connections ----------------------------------------------------------------------------------

void LocalListener::admit(Socket socket) {
  pending_ = std::move(socket);
  pending_since_ = steady_clock::now();
  admit_pending();
}

void LocalListener::admit_pending() {
  if (!pending_ || !make_room()) return;
  try {
    set_up(*std::exchange(pending_, std::nullopt));
  } catch (const std::bad_alloc&) {
    report("out of memory: a new connection was closed");
  }
  listening_.accept_next();
}

// False: the new connection was refused, or waits.
bool LocalListener::make_room() {
  if (clients_.size() < policy_.connection_limit) return true;
  if (!policy_.evicts) {
    pending_.reset();
    refused_report_("refused a connection to %s: too many connections", listening_.path().c_str());
    listening_.accept_next();
    return false;
  }
  Client& idle = *clients_.front();
  // The wait of the new connection counts too: connections that are never idle must not keep everyone out.
  const duration grace_used = steady_clock::now() - std::min(idle.last_active, pending_since_);
  if (grace_used < wire::eviction_grace) {
    make_room_after(wire::eviction_grace - grace_used);
    return false;
  }
  close(idle, nullptr);
  return true;
}

void LocalListener::make_room_after(duration delay) {
  room_timer_.expires_after(delay);
  room_timer_.async_wait([this](const std::error_code& error) {
    if (!error) admit_pending();
  });
}

void LocalListener::evict_idle() {
  if (!policy_.evicts || clients_.empty()) return;
  Client& idle = *clients_.front();
  if (steady_clock::now() - idle.last_active >= wire::eviction_grace) close(idle, nullptr);
}

void LocalListener::set_up(Socket socket) {
  const auto client = std::make_shared<Client>(std::move(socket), policy_.request_limit);
  client->place = clients_.insert(clients_.end(), client);
  try {
    if (!delegate_->listener_shouldAcceptNewConnection(*this, client->connection)) return close(*client, nullptr);
  } catch (const std::bad_alloc&) {
    return close(*client, "out of memory");
  }
  serve(*client, false);
}

// ---- a client's turn ----------------------------------------------------------------------------------

// The whole way of a request, from the bytes that came to the response.
void LocalListener::serve(Client& client, bool readable) {
  LocalConnection& connection = client.connection;
  try {
    if (readable) connection.receive();
    do {
      send(client);
    } while (serve_requests(client));
    connection.update_deadlines(over_budget_);
    if (connection.is_finished()) return close(client, connection.fault());
    if (connection.has_deadline()) start_ticking();
    wait_for(client);
  } catch (const std::bad_alloc&) {
    close(client, "out of memory");
  }
}

// Whether there was any.
bool LocalListener::serve_requests(Client& client) {
  bool served = false;
  while (!over_budget_ && client.connection.serve_next()) {
    served = true;
    if (count_output(client)) became_active(client);
  }
  return served;
}

void LocalListener::send(Client& client) {
  if (client.awaits_writable || !client.connection.send()) return;
  count_output(client);
  became_active(client);
}

// Whether it has changed.
bool LocalListener::count_output(Client& client) {
  const size_t before = std::exchange(client.counted_output, client.connection.pending_output());
  pending_output_ += client.counted_output - before;
  over_budget_ |= pending_output_ > wire::all_unread_output_limit;
  return client.counted_output != before;
}

void LocalListener::wait_for(Client& client) {
  Socket& socket = client.connection.socket();
  if (client.connection.wants_input() && !over_budget_ && !client.awaits_readable) {
    socket.async_wait(Socket::wait_read, [this, client = client.shared_from_this()](const std::error_code&) {
      client->awaits_readable = false;
      if (!client->closed) serve(*client, true);
    });
    client.awaits_readable = true;
  }
  if (client.connection.wants_output() && !client.awaits_writable) {
    socket.async_wait(Socket::wait_write, [this, client = client.shared_from_this()](const std::error_code&) {
      client->awaits_writable = false;
      if (!client->closed) serve(*client, false);
    });
    client.awaits_writable = true;
  }
}

void LocalListener::became_active(Client& client) {
  client.last_active = steady_clock::now();
  clients_.splice(clients_.end(), clients_, client.place);
}

void LocalListener::close(Client& client, const char* fault) {
  if (fault != nullptr) closed_report_("closed a connection: %s", fault);
  client.closed = true;
  client.connection.close();
  count_output(client);
  clients_.erase(client.place);
  // Its place goes to the connection that waits for one.
  if (pending_) make_room_after(duration::zero());
}

// ---- timeouts and the budget for output ---------------------------------------------------------------

bool LocalListener::is_well_over_budget() const {
  return over_budget_ && pending_output_ > wire::all_unread_output_limit / 2;
}

void LocalListener::start_ticking() {
  if (ticking_) return;
  tick_timer_.expires_after(LocalConnection::tick_interval);
  tick_timer_.async_wait([this](const std::error_code& error) {
    if (!error) tick();
  });
  ticking_ = true;
}

// The one idle for longest first. The client may go, or move to the end, where it is met again.
template <class Visit>
void LocalListener::for_each_client(Visit visit) {
  for (auto next = clients_.begin(); next != clients_.end();) {
    const std::shared_ptr<Client> client = *next++;
    visit(*client);
  }
}

void LocalListener::tick() {
  ticking_ = false;
  for_each_client([this](Client& client) {
    client.connection.tick(is_well_over_budget());
    if (client.connection.is_finished()) return close(client, client.connection.fault());
    if (client.connection.has_deadline()) start_ticking();
  });
  if (over_budget_ && !is_well_over_budget()) {
    over_budget_ = false;
    for_each_client([this](Client& client) {
      if (!over_budget_) serve(client, false);
    });
  }
  // Nobody waits for anything now: what large answers took goes back to the system.
  if (!ticking_) malloc_trim(0);
}

}  // namespace corvane
