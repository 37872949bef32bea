#include "client/socket.h"

#include <cerrno>
#include <fcntl.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include "wire/socket_address.h"

namespace corvane::client {

namespace {

using std::chrono::steady_clock;

// As the timeout of a connect(2). False, with errno EAGAIN, where nothing is left.
bool limit_to(int socket, std::chrono::microseconds left) {
  if (left.count() <= 0) {
    errno = EAGAIN;
    return false;
  }
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(left);
  const timeval limit{static_cast<time_t>(seconds.count()), static_cast<suseconds_t>((left - seconds).count())};
  return setsockopt(socket, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof(limit)) == 0;
}

// The kernel counts its timeout from the start of each call, and a signal ends the call.
bool connect_until(int socket, const wire::SocketAddress& address, steady_clock::time_point deadline) {
  const auto left = [&] { return std::chrono::ceil<std::chrono::microseconds>(deadline - steady_clock::now()); };
  while (limit_to(socket, left())) {
    if (connect(socket, address.get(), address.size()) == 0) return true;
    if (errno != EINTR) return false;
  }
  return false;
}

}  // namespace

Socket::~Socket() {
  if (descriptor_ < 0) return;
  const int error = errno;
  int state = 0;
  pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &state);
  close(descriptor_);
  pthread_setcancelstate(state, nullptr);
  errno = error;
}

Socket connect_to(const std::string& path, std::chrono::milliseconds timeout) {
  const auto deadline = steady_clock::now() + timeout;
  const wire::SocketAddress address(path);
  if (address.error() != 0) {
    errno = address.error();
    return {};
  }
  Socket socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!socket || !connect_until(socket.descriptor(), address, deadline)) return {};
  fcntl(socket.descriptor(), F_SETFL, fcntl(socket.descriptor(), F_GETFL) | O_NONBLOCK);
  return socket;
}

}  // namespace corvane::client
