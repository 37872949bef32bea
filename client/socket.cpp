#include "client/socket.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include "wire/socket_address.h"

namespace corvane::client {

int connect_to(const std::string& path, std::chrono::milliseconds timeout) {
  const wire::SocketAddress address(path);
  if (address.error() != 0) {
    errno = address.error();
    return -1;
  }
  if (timeout.count() <= 0) {
    errno = EAGAIN;
    return -1;
  }
  const int socket = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (socket < 0) return -1;
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(timeout);
  const auto rest = std::chrono::duration_cast<std::chrono::microseconds>(timeout - seconds);
  const timeval limit{static_cast<time_t>(seconds.count()), static_cast<suseconds_t>(rest.count())};
  setsockopt(socket, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof(limit));
  while (connect(socket, address.get(), address.size()) != 0) {
    if (errno == EINTR) continue;
    const int error = errno;
    close(socket);
    errno = error;
    return -1;
  }
  fcntl(socket, F_SETFL, fcntl(socket, F_GETFL) | O_NONBLOCK);
  return socket;
}

}  // namespace corvane::client
