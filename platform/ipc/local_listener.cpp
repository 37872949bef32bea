// The event loop reads for each client that may send more, and waits to write for each that has output pending.
// The handlers name the client, so a closed client is kept until they have been called. A request that has come
// whole makes its client ready, and the turns are served later: by then the event loop has told who else is ready.

#include "platform/ipc/local_listener.h"

#include <asio/buffer.hpp>
#include <asio/posix/stream_descriptor.hpp>
#include <asio/post.hpp>

#include <algorithm>
#include <array>
#include <chrono>
#include <malloc.h>
#include <new>
#include <span>
#include <utility>

#include "wire/limits.h"

namespace corvane {

using std::chrono::steady_clock;

namespace {

// With the executor's own type, each wait is cheaper than with any_io_executor.
using SocketEvents = asio::posix::basic_stream_descriptor<asio::io_context::executor_type>;

constexpr unsigned ticks_between_trims = 20;  // 5 s

// For the log, by CloseReason. Refusing and evicting have lines of their own.
constexpr std::array<const char*, close_reason_names.size()> faults{
    nullptr,
    nullptr,
    "its request did not arrive whole in time",
    "it did not read its answers",
    "it sent something other than a frame",
    "it announced a request over the size limit",
    "it passed descriptors",
    "out of memory",
};

}  // namespace

/// A connection, and what the listener keeps of it.
struct LocalListener::Client : ShareTable::Entry {
  Client(int socket, const LocalConnection::Environment& environment, asio::io_context& context)
      : events(context), connection(socket, environment) {}
  ~Client() { events.release(); }

  SocketEvents events;  ///< what the event loop waits for; the socket is the connection's
  LocalConnection connection;
  bool awaits_input = false;          ///< the event loop has a handler that names this client
  bool awaits_output = false;         ///< likewise
  std::list<Client>* list = nullptr;  ///< the one that it is in
  std::list<Client>::iterator place;
  size_t counted_memory = 0;  ///< its part of memory_
};

LocalListener::Policy LocalListener::policy_for(IpcAccess access) {
  if (access == IpcAccess::owner) return {0600, wire::admin_request_limit, wire::admin_connection_limit, false};
  return {0666, wire::public_request_limit, connection_limits().public_connections, true};
}

LocalListener::LocalListener(std::string path, IpcAccess access, RequestQueue& queue, SocketCloser& closer,
                             Start start)
    : policy_(policy_for(access)),
      queue_(queue),
      closer_(closer),
      shares_(policy_.connection_limit),
      listening_(std::move(path), policy_.socket_mode, start.handed_over, queue.context(),
                 {std::move(start.listening), [this](int socket) { admit(socket); },
                  [this] { make_room_for_descriptors(); }}),
      tick_timer_(queue.context()),
      turns_timer_(queue.context()) {
  queue_.rearm_with([this] { rearm(); });
}

LocalListener::~LocalListener() { queue_.stop(); }

void LocalListener::resume() {
  queue_.submit([this] { listening_.open(); });
}

ConnectionCounts LocalListener::counts() const {
  ConnectionCounts counts = counts_;
  counts.open = shares_.size();
  counts.limit = policy_.connection_limit;
  return counts;
}

void LocalListener::rearm() {
  listening_.rearm();
  if (!clients_.empty()) start_ticking();
  work();
}

// Moves a client to the end of another list.
template <class List, class Client>
void move_to(List& list, Client& client) {
  list.splice(list.end(), *client.list, client.place);
  client.list = &list;
}

// ---- admission ----------------------------------------------------------------------------------------

void LocalListener::admit(int socket) {
  const PeerIdentity peer = identity_of(socket);
  if (Client* const client = add_client(socket)) run(*client, [&] { set_up(*client, peer); });
  drop_closed();
}

// Null where memory is out; the socket is closed then.
LocalListener::Client* LocalListener::add_client(int socket) {
  SocketCloser* const closer = listening_.refuses_descriptors() ? nullptr : &closer_;
  try {
    Client& client = clients_.emplace_back(
        socket, LocalConnection::Environment{policy_.request_limit, answers_, closer}, queue_.context());
    client.list = &clients_;
    client.place = std::prev(clients_.end());
    return &client;
  } catch (const std::bad_alloc&) {
    report("out of memory: a new connection was closed");
    counts_.count(CloseReason::out_of_memory);
    close_socket(socket, closer);
    return nullptr;
  }
}

void LocalListener::set_up(Client& client, PeerIdentity peer) {
  if (!make_room(peer)) {
    refused_report_("refused a connection to %s: too many connections", listening_.path().c_str());
    return close(client, CloseReason::refused);
  }
  shares_.add(client, peer);
  ++counts_.accepted;
  const bool accepted = delegate_->listener_shouldAcceptNewConnection(*this, client.connection);
  std::error_code refused;
  client.events.assign(client.connection.socket(), refused);
  if (!accepted || refused) close(client, std::nullopt);
}

bool LocalListener::make_room(PeerIdentity peer) {
  if (!policy_.shares) return shares_.size() < policy_.connection_limit;
  const ShareTable::Admission admission = shares_.admission_of(peer);
  if (admission.verdict == ShareTable::Verdict::evict) {
    evicted_report_("evicted a connection of the user with the most: all %zu are taken", policy_.connection_limit);
    close(static_cast<Client&>(*admission.evicted), CloseReason::evicted);
  }
  return admission.verdict != ShareTable::Verdict::refuse;
}

void LocalListener::make_room_for_descriptors() {
  if (!policy_.shares) return;
  if (ShareTable::Entry* first = shares_.first_to_evict()) {
    evicted_report_("evicted a connection of the user with the most: no descriptor is left");
    close(static_cast<Client&>(*first), CloseReason::evicted);
  }
  drop_closed();
}

void LocalListener::close(Client& client, std::optional<CloseReason> reason) {
  if (client.list == &closed_) return;
  if (reason) {
    counts_.count(*reason);
    const char* fault = faults[static_cast<size_t>(*reason)];
    if (fault != nullptr) closed_report_("closed a connection: %s", fault);
  }
  client.events.release();  // its handlers are called soon
  client.connection.close();
  memory_ -= std::exchange(client.counted_memory, 0);
  shares_.remove(client);
  move_to(closed_, client);
  start_ticking();  // the last tick gives freed memory back to the system
}

void LocalListener::drop_closed() {
  if (closed_.empty()) return;
  closed_.remove_if([](const Client& client) { return !client.awaits_input && !client.awaits_output; });
}

// ---- events -------------------------------------------------------------------------------------------

void LocalListener::await_events(Client& client) {
  if (client.connection.wants_input() && !client.awaits_input) await_input(client);
  if (client.connection.wants_output() && !client.awaits_output) await_output(client);
}

void LocalListener::await_input(Client& client) {
  if (!client.connection.looks_for_descriptors()) {
    const std::span<char> buffer = client.connection.input_buffer();
    client.events.async_read_some(asio::buffer(buffer.data(), buffer.size()),
                                  [this, &client](const std::error_code& error, size_t count) {
                                    client.awaits_input = false;
                                    handle_event(client, [&] { client.connection.received(error ? 0 : count); });
                                  });
  } else {
    // `receive` looks for descriptors before it reads.
    client.events.async_wait(SocketEvents::wait_read, [this, &client](const std::error_code&) {
      client.awaits_input = false;
      handle_event(client, [&] { client.connection.receive(); });
    });
  }
  client.awaits_input = true;
}

void LocalListener::await_output(Client& client) {
  client.events.async_wait(SocketEvents::wait_write, [this, &client](const std::error_code&) {
    client.awaits_output = false;
    handle_event(client, [&] { send(client); });
  });
  client.awaits_output = true;
}

// A lone client is served at once, because nobody else can be ready.
template <class Step>
void LocalListener::handle_event(Client& client, Step step) {
  if (client.list != &closed_) run(client, step);
  if (clients_.size() == 1) return work();
  drop_closed();
  work_later();
}

// ---- turns --------------------------------------------------------------------------------------------

// Serves a slice of turns and sends the answers. In between the event loop does other work.
void LocalListener::work() {
  if (shares_.has_ready()) serve_turns();
  send_answers();
  drop_closed();
  work_later();
}

void LocalListener::work_later() {
  if (posted_ || !shares_.has_ready()) return;
  if (!over_budget() && steady_clock::now() >= next_turns_) return post_work();
  if (awaits_turns_) return;
  if (over_budget()) {
    start_ticking();  // those who do not read what the kernel holds for them have a timeout now
    // Nothing tells when a client has read what the kernel holds for it.
    next_turns_ = std::max(next_turns_, steady_clock::now() + wire::budget_retry);
  }
  turns_timer_.expires_at(next_turns_);
  turns_timer_.async_wait([this](const std::error_code&) {
    awaits_turns_ = false;
    work();
  });
  awaits_turns_ = true;
}

void LocalListener::post_work() {
  asio::post(queue_.context(), [this] {
    posted_ = false;
    work();
  });
  posted_ = true;
}

// Turns that took long, for large answers, are followed by as long a time for sending. A client takes a large
// answer piece by piece, and must not wait for other requests between two pieces.
void LocalListener::serve_turns() {
  const auto start = steady_clock::now();
  if (start < next_turns_) return;
  if (over_budget()) measure_kernel_buffers();
  do {
    ShareTable::Entry* const next = shares_.next_turn(over_budget());
    if (next == nullptr) break;
    serve(static_cast<Client&>(*next));
  } while (shares_.has_ready() && steady_clock::now() - start < wire::turn_slice);
  if (answers_.bytes() == 0) return;
  const auto now = steady_clock::now();
  if (now - start > 2 * wire::turn_slice) next_turns_ = now + (now - start);
}

// A client that sends requests without waiting for the answers goes on as long as it is its turn again.
void LocalListener::serve(Client& client) {
  try {
    if (client.connection.serve()) shares_.became_active(client);
    while (client.connection.may_have_more() && !client.connection.has_request()) client.connection.receive();
    if (client.connection.has_request()) shares_.make_ready(client);
    count_memory(client);
    if (answers_.bytes() != 0) start_ticking();  // the last tick gives back what large answers took
    if (client.list != &served_) move_to(served_, client);
  } catch (const std::bad_alloc&) {
    close(client, CloseReason::out_of_memory);
  }
}

// All that a client was answered in the turns before goes in one call.
void LocalListener::send_answers() {
  while (!served_.empty()) {
    Client& client = served_.front();
    move_to(clients_, client);
    run(client, [&] {
      if (!client.awaits_output) send(client);
    });
  }
}

void LocalListener::send(Client& client) {
  if (client.connection.send()) shares_.became_active(client);
}

// Has the client do something, and then sees to what is due next.
template <class Step>
void LocalListener::run(Client& client, Step step) {
  try {
    step();
    if (client.list != &closed_) settle(client);
  } catch (const std::bad_alloc&) {
    close(client, CloseReason::out_of_memory);
  }
}

void LocalListener::settle(Client& client) {
  LocalConnection& connection = client.connection;
  const bool has_request = connection.has_request();
  connection.update_deadlines(over_budget());
  count_memory(client);
  if (connection.is_finished()) return close(client, connection.fault());
  if (has_request) shares_.make_ready(client);
  if (connection.has_deadline()) start_ticking();
  await_events(client);
}

// ---- memory -------------------------------------------------------------------------------------------

void LocalListener::count_memory(Client& client) {
  const size_t memory = client.connection.memory();
  memory_ += memory - std::exchange(client.counted_memory, memory);
  shares_.set_held(client, client.connection.held_output());
  shares_.set_idle(client, !client.connection.wants_output());
}

bool LocalListener::over_budget() const { return memory_ + answers_.bytes() > wire::memory_budget; }

void LocalListener::measure_kernel_buffers() {
  for (Client& client : clients_) {
    client.connection.measure_kernel_buffer();
    count_memory(client);
  }
}

// ---- timeouts -----------------------------------------------------------------------------------------

void LocalListener::start_ticking() {
  if (ticking_) return;
  tick_timer_.expires_after(LocalConnection::tick_interval);
  tick_timer_.async_wait([this](const std::error_code& error) {
    if (!error) tick();
  });
  ticking_ = true;
}

void LocalListener::tick() {
  ticking_ = false;
  if (over_budget()) measure_kernel_buffers();
  for (auto next = clients_.begin(); next != clients_.end();) {
    Client& client = *next++;
    run(client, [&] { client.connection.tick(); });
  }
  drop_closed();
  // What large answers took goes back to the system when nobody waits for anything, and also where somebody always
  // does.
  if (!ticking_ || ++ticks_since_trim_ == ticks_between_trims) {
    malloc_trim(0);
    ticks_since_trim_ = 0;
  }
}

}  // namespace corvane
