#include "platform/ipc/listening_socket.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <new>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>
#include <utility>

#include "platform/descriptor.h"
#include "platform/ipc/passed_descriptors.h"
#include "platform/report.h"
#include "wire/socket_address.h"

namespace corvane {

using std::chrono::steady_clock;

namespace {

// The mode is set before anybody can connect, and a socket file that a killed daemon left is replaced: the
// process lock says that no other daemon uses it.
int bind_and_listen(int socket, const std::string& path, mode_t mode) {
  const wire::SocketAddress address(path);
  if (address.error() != 0) return address.error();
  if (unlink(address.path()) != 0 && errno != ENOENT) return errno;
  if (bind(socket, address.get(), address.size()) != 0) return errno;
  if (chmod(address.path(), mode) != 0) return errno;
  return ::listen(socket, wire::backlog) == 0 ? 0 : errno;
}

// -1 with errno set where it fails.
int create_listening_socket(const std::string& path, mode_t mode, bool& refuses_descriptors) {
  const int socket = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (socket < 0) return -1;
  refuses_descriptors = refuse_passed_descriptors(socket);
  const int error = bind_and_listen(socket, path, mode);
  if (error == 0) return socket;
  close(socket);
  errno = error;
  return -1;
}

int option_of(int socket, int option) {
  int value = 0;
  socklen_t size = sizeof value;
  return getsockopt(socket, SOL_SOCKET, option, &value, &size) == 0 ? value : -1;
}

bool is_listening_stream_socket(int socket) {
  return option_of(socket, SO_DOMAIN) == AF_UNIX && option_of(socket, SO_TYPE) == SOCK_STREAM &&
         option_of(socket, SO_ACCEPTCONN) == 1;
}

}  // namespace

wire::ConnectionLimits connection_limits() {
  rlimit descriptors{};
  getrlimit(RLIMIT_NOFILE, &descriptors);
  return wire::connection_limits(descriptors.rlim_cur);
}

PeerIdentity identity_of(int socket) {
  ucred peer{};
  socklen_t size = sizeof peer;
  if (getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0) return {UINT32_MAX, 0};
  return {peer.uid, peer.pid};
}

ListeningSocket::ListeningSocket(std::string path, mode_t mode, int handed_over, asio::io_context& context,
                                 Handlers handlers)
    : path_(std::move(path)),
      mode_(mode),
      handlers_(std::move(handlers)),
      handed_over_(handed_over),
      acceptor_(context),
      retry_timer_(context) {}

ListeningSocket::~ListeningSocket() {
  if (!is_bound_) return;
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

void ListeningSocket::rearm() {
  if (!opened_ || pending_) return;
  if (!acceptor_.is_open() && !listen()) return retry_after(wire::bind_retry);
  acceptor_.async_wait(asio::socket_base::wait_read, [this](const std::error_code&) {
    pending_ = false;
    // No flood of connections keeps the queue from its other work for longer than a slice of turns.
    accept_until(steady_clock::now() + wire::turn_slice);
    rearm();
  });
  pending_ = true;
}

// -1 where there is none that can be used.
int ListeningSocket::take_handed_over() {
  if (!handed_over_.is_open()) return -1;
  const int socket = handed_over_.detach();
  if (is_listening_stream_socket(socket)) {
    refuses_descriptors_ = refuse_passed_descriptors(socket);
    accepts_older_ = true;
    return socket;
  }
  report("what the service manager handed over for %s is no listening local socket", path_.c_str());
  close(socket);
  return -1;
}

bool ListeningSocket::listen() {
  const int handed_over = take_handed_over();
  Descriptor socket(handed_over >= 0 ? handed_over : create_listening_socket(path_, mode_, refuses_descriptors_));
  is_bound_ = handed_over < 0 && socket.is_open();
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
  if (acceptor_.is_open() && handlers_.listening) handlers_.listening();
  return acceptor_.is_open();
}

void ListeningSocket::accept_until(steady_clock::time_point end) {
  if (!acceptor_.is_open()) return;
  int error = 0;
  for (int i = 0; i < wire::backlog && error == 0 && steady_clock::now() < end; ++i) {
    const int socket = accept4(acceptor_.native_handle(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    error = socket < 0 ? errno : 0;
    if (error == EAGAIN) accepts_older_ = false;
    if (socket >= 0) handlers_.accepted(socket);
  }
  if (error == 0 || error == EAGAIN || error == EINTR || error == ECONNABORTED || pending_) return;
  if (error == EMFILE || error == ENFILE) handlers_.out_of_descriptors();
  retry_after(wire::accept_retry);
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
