#include "platform/common/listening_socket.h"

#include <asio/error.hpp>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <new>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

#include "platform/report.h"
#include "wire/limits.h"
#include "wire/socket_address.h"

namespace corvane {

namespace {

// The mode is set before anybody can connect, and a socket file that a killed daemon left is replaced: the
// process lock says that no other daemon uses it.
int bind_and_listen(int socket, const std::string& path, mode_t mode) {
  const wire::SocketAddress address(path);
  if (address.error() != 0) return address.error();
  if (unlink(address.path()) != 0 && errno != ENOENT) return errno;
  if (bind(socket, address.get(), address.size()) != 0) return errno;
  if (chmod(address.path(), mode) != 0) return errno;
  return ::listen(socket, SOMAXCONN) == 0 ? 0 : errno;
}

// -1 with errno set where it fails.
int create_listening_socket(const std::string& path, mode_t mode) {
  const int socket = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (socket < 0) return -1;
  const int error = bind_and_listen(socket, path, mode);
  if (error == 0) return socket;
  close(socket);
  errno = error;
  return -1;
}

}  // namespace

ListeningSocket::ListeningSocket(std::string path, mode_t mode, asio::io_context& context)
    : path_(std::move(path)), mode_(mode), acceptor_(context), retry_timer_(context) {}

void ListeningSocket::open(Newcomer newcomer) {
  newcomer_ = std::move(newcomer);
  listen();
}

void ListeningSocket::listen() {
  const int socket = create_listening_socket(path_, mode_);
  if (socket < 0) {
    report("could not listen on " + path_ + ": " + std::strerror(errno));
    return try_again(wire::bind_retry, &ListeningSocket::listen);
  }
  std::error_code error;
  acceptor_.assign(asio::local::stream_protocol(), socket, error);
  if (!error) acceptor_.non_blocking(true, error);
  if (error) return report("could not serve " + path_ + ": " + error.message());
  accept_next();
}

// Waits and then accepts, in one step on this thread: a connection that an asynchronous accept had taken, and
// not yet told of, would be unknown to `accept_waiting`.
void ListeningSocket::accept_next() {
  try {
    acceptor_.async_wait(asio::socket_base::wait_read, [self = shared_from_this()](const std::error_code& error) {
      if (!error && self->newcomer_) self->accept_one();
    });
  } catch (const std::bad_alloc&) {
    try_again(wire::accept_retry, &ListeningSocket::accept_next);
  }
}

void ListeningSocket::accept_one() {
  std::error_code error;
  if (std::optional<Socket> socket = accept(error)) return newcomer_(std::move(*socket));
  if (error == asio::error::would_block) return accept_next();
  // Most likely there are no descriptors left.
  try_again(wire::accept_retry, &ListeningSocket::accept_next);
}

std::optional<ListeningSocket::Socket> ListeningSocket::accept(std::error_code& error) {
  Socket socket = acceptor_.accept(error);
  if (error) return std::nullopt;
  fcntl(socket.native_handle(), F_SETFD, FD_CLOEXEC);
  return socket;
}

std::optional<ListeningSocket::Socket> ListeningSocket::accept_waiting() {
  std::error_code ignored;
  return accept(ignored);
}

void ListeningSocket::try_again(std::chrono::milliseconds delay, void (ListeningSocket::*what)()) {
  retry_timer_.expires_after(delay);
  retry_timer_.async_wait([self = shared_from_this(), what](const std::error_code& error) {
    if (!error && self->newcomer_) (self.get()->*what)();
  });
}

void ListeningSocket::shut_down() {
  newcomer_ = nullptr;
  if (acceptor_.is_open()) unlink(wire::SocketAddress(path_).path());
  std::error_code ignored;
  acceptor_.close(ignored);
  retry_timer_.cancel();
}

}  // namespace corvane
