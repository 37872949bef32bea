#pragma once

#include <asio/io_context.hpp>
#include <asio/posix/stream_descriptor.hpp>

#include <array>
#include <functional>
#include <span>
#include <sys/epoll.h>

namespace corvane {

/// Tells which of many sockets are ready, all at once, so that they can be served in turn. An event loop waits for
/// the poller itself. Readiness is level-triggered: what is not done about an event now is told again. One thread.
class SocketPoller {
 public:
  struct Readiness {
    bool readable = false;  ///< also at the end of the stream and after an error, which reading tells
    bool writable = false;  ///< also after an error

    bool operator==(const Readiness&) const = default;
  };
  struct Event {
    void* data;
    Readiness ready;
  };

  /// Throws std::system_error where the kernel refuses.
  explicit SocketPoller(asio::io_context& context);

  /// From now on `data` is told when the socket is readable. False where the kernel has no room. A socket is to be
  /// removed before it is closed.
  bool add(int socket, void* data);
  /// Changes what is told. Without any interest nothing is, not even the end of the connection.
  void set_interest(int socket, void* data, Readiness interest);
  void remove(int socket);

  /// The sockets that are ready now, each once, and some hundred at most. Valid until the next call.
  std::span<const Event> poll();
  /// Calls `ready` once when a socket is. Throws std::bad_alloc.
  void async_wait(std::function<void()> ready);

 private:
  static constexpr size_t events_at_once = 256;

  asio::posix::stream_descriptor epoll_;
  std::array<epoll_event, events_at_once> raw_;
  std::array<Event, events_at_once> events_;
};

}  // namespace corvane
