#include "platform/ipc/listening_socket.h"

#include <asio/error.hpp>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <new>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

#include "platform/descriptor.h"
#include "platform/report.h"
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

wire::ConnectionLimits connection_limits() {
  rlimit descriptors{};
  getrlimit(RLIMIT_NOFILE, &descriptors);
  return wire::connection_limits(descriptors.rlim_cur);
}

ListeningSocket::ListeningSocket(std::string path, mode_t mode, asio::io_context& context, Handlers handlers)
    : path_(std::move(path)),
      mode_(mode),
      handlers_(std::move(handlers)),
      acceptor_(context),
      retry_timer_(context) {}

ListeningSocket::~ListeningSocket() {
  if (!acceptor_.is_open()) return;
  try {
    unlink(wire::SocketAddress(path_).path());
  } catch (const std::bad_alloc&) {
    // The next start replaces the socket file.
  }
}

void ListeningSocket::open() {
  opened_ = true;
  rearm();
}

void ListeningSocket::accept_next() {
  accepts_ = true;
  rearm();
}

// Waits and then accepts, in one step on this thread: a connection that an asynchronous accept had taken, and not
// yet told of, would be unknown to `accept_now`.
void ListeningSocket::rearm() {
  if (!opened_ || pending_) return;
  if (!acceptor_.is_open() && !listen()) return retry_after(wire::bind_retry);
  if (!accepts_) return;
  acceptor_.async_wait(asio::socket_base::wait_read, [this](const std::error_code&) {
    pending_ = false;
    accept_one();
  });
  pending_ = true;
}

bool ListeningSocket::listen() {
  Descriptor socket(create_listening_socket(path_, mode_));
  std::error_code error(socket.is_open() ? 0 : errno, std::system_category());
  if (!error) acceptor_.assign(asio::local::stream_protocol(), socket.number(), error);
  if (!error) {
    socket.detach();
    acceptor_.non_blocking(true, error);
  }
  if (error && error.value() != bind_error_) {
    report("could not listen on %s: %s", path_.c_str(), std::strerror(error.value()));
  }
  bind_error_ = error.value();
  return acceptor_.is_open();
}

void ListeningSocket::accept_one() {
  std::error_code error;
  if (std::optional<Socket> socket = accept(error)) {
    accepts_ = false;
    return handlers_.accepted(std::move(*socket));
  }
  if (error == asio::error::would_block) return rearm();
  if (error == asio::error::no_descriptors) handlers_.out_of_descriptors();
  retry_after(wire::accept_retry);
}

std::optional<ListeningSocket::Socket> ListeningSocket::accept(std::error_code& error) {
  Socket socket = acceptor_.accept(error);
  if (error) return std::nullopt;
  fcntl(socket.native_handle(), F_SETFD, FD_CLOEXEC);
  socket.non_blocking(true, error);
  if (error) return std::nullopt;
  return socket;
}

std::optional<ListeningSocket::Socket> ListeningSocket::accept_now() {
  std::error_code ignored;
  return accept(ignored);
}

void ListeningSocket::retry_after(std::chrono::milliseconds delay) {
  retry_timer_.expires_after(delay);
  retry_timer_.async_wait([this](const std::error_code&) {
    pending_ = false;
    rearm();
  });
  pending_ = true;
}

}  // namespace corvane
