#pragma once

#include <asio/local/stream_protocol.hpp>
#include <asio/steady_timer.hpp>

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <sys/types.h>

namespace corvane {

/// A listening local stream socket at a path. What stands in the way of listening or accepting is tried again
/// later: a path that cannot be bound is reported and bound every few seconds, and without descriptors to
/// accept with, newcomers wait in the socket's queue. Everything on the thread of `context`.
class ListeningSocket : public std::enable_shared_from_this<ListeningSocket> {
 public:
  using Socket = asio::local::stream_protocol::socket;
  using Newcomer = std::function<void(Socket)>;

  ListeningSocket(std::string path, mode_t mode, asio::io_context& context);

  const std::string& path() const { return path_; }

  /// Listens, and waits for the first newcomer. `newcomer` is given each one that was waited for.
  void open(Newcomer newcomer);
  /// Waits for the next newcomer.
  void accept_next();
  /// One that is here already, if there is one, whatever is waited for.
  std::optional<Socket> accept_waiting();
  /// Unlinks and closes; nobody is told of newcomers any more.
  void shut_down();

 private:
  void listen();
  void accept_one();
  std::optional<Socket> accept(std::error_code& error);
  void try_again(std::chrono::milliseconds delay, void (ListeningSocket::*what)());

  const std::string path_;
  const mode_t mode_;
  asio::local::stream_protocol::acceptor acceptor_;
  asio::steady_timer retry_timer_;
  Newcomer newcomer_;
};

}  // namespace corvane
