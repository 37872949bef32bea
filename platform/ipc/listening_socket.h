#pragma once

#include <asio/local/stream_protocol.hpp>
#include <asio/steady_timer.hpp>

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <sys/types.h>
#include <system_error>

#include "wire/limits.h"

namespace corvane {

/// How many connections this process has the descriptors for.
wire::ConnectionLimits connection_limits();

/// Who is given the newcomers of a listening socket.
class Host {
 public:
  virtual ~Host() = default;

  /// The socket does not block.
  virtual void take_newcomer(asio::local::stream_protocol::socket socket) = 0;
  /// Somebody waits, and there is no descriptor to accept with.
  virtual void descriptors_ran_out() {}
};

/// A listening local stream socket at a path. What stands in the way of listening or accepting is tried again
/// later: a path that cannot be bound is bound every few seconds, and reported once for each reason, and
/// without descriptors to accept with, newcomers wait in the socket's queue. Everything on the thread of
/// `context`.
class ListeningSocket : public std::enable_shared_from_this<ListeningSocket> {
 public:
  using Socket = asio::local::stream_protocol::socket;

  ListeningSocket(std::string path, mode_t mode, asio::io_context& context);

  const std::string& path() const { return path_; }

  /// Listens, and waits for the first newcomer. The host is given each one that was waited for, and kept until
  /// the end.
  void open(std::shared_ptr<Host> host);
  /// Waits for the next newcomer.
  void accept_next();
  /// Waits for what is to be waited for, where std::bad_alloc has come in between.
  void rearm();
  /// One that is here already, if there is one, whatever is waited for.
  std::optional<Socket> accept_waiting();
  /// Unlinks and closes; nobody is told of newcomers any more.
  void shut_down();

 private:
  bool listen();
  void accept_one();
  std::optional<Socket> accept(std::error_code& error);
  void try_again_after(std::chrono::milliseconds delay);

  const std::string path_;
  const mode_t mode_;
  asio::local::stream_protocol::acceptor acceptor_;
  asio::steady_timer retry_timer_;
  std::shared_ptr<Host> host_;
  bool wants_newcomer_ = true;
  bool waits_ = false;
  int failure_ = 0;
};

}  // namespace corvane
