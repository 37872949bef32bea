#pragma once

#include <asio/local/stream_protocol.hpp>
#include <asio/steady_timer.hpp>

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <sys/types.h>
#include <system_error>

#include "wire/limits.h"

namespace corvane {

/// How many connections this process has the descriptors for.
wire::ConnectionLimits connection_limits();

/// A listening local stream socket at a path. A path that cannot be bound is tried again every few seconds, and
/// reported once for each reason; while there are no descriptors to accept with, connections wait in the backlog.
/// Everything happens on the thread of `context`, where nothing may run any more when this is destroyed.
class ListeningSocket {
 public:
  using Socket = asio::local::stream_protocol::socket;

  struct Handlers {
    /// Takes a new connection, whose socket does not block. The next one is accepted after `accept_next`.
    std::function<void(Socket)> accepted;
    /// A connection waits, and there is no descriptor to accept it with.
    std::function<void()> out_of_descriptors;
  };

  ListeningSocket(std::string path, mode_t mode, asio::io_context& context, Handlers handlers);
  /// Unlinks and closes.
  ~ListeningSocket();

  const std::string& path() const { return path_; }

  /// Listens, and waits for the first connection.
  void open();
  /// Waits for the next connection.
  void accept_next();
  /// After std::bad_alloc: waits again for whatever is due, unless it is still waited for.
  void rearm();
  /// A connection that is in the backlog now, if there is one.
  std::optional<Socket> accept_now();

 private:
  bool listen();
  void accept_one();
  std::optional<Socket> accept(std::error_code& error);
  void retry_after(std::chrono::milliseconds delay);

  const std::string path_;
  const mode_t mode_;
  const Handlers handlers_;
  asio::local::stream_protocol::acceptor acceptor_;
  asio::steady_timer retry_timer_;
  bool opened_ = false;
  bool accepts_ = true;   ///< a connection is to be accepted as soon as one comes
  bool pending_ = false;  ///< a wait for a connection or for the retry timer is under way
  int bind_error_ = 0;    ///< the one reported last
};

}  // namespace corvane
