// A socket of our own, because syslog(3) waits for as long as nobody reads what the system log holds.

#include "platform/log/system_log.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <sys/socket.h>
#include <syslog.h>
#include <unistd.h>

#include "wire/socket_address.h"

namespace corvane {

namespace {

// As syslog(3) writes it: in local time, to the second. The second rarely changes: it is kept as text.
std::string head(int level) {
  thread_local std::time_t formatted_second = -1;
  thread_local char time[32];
  if (const std::time_t now = std::time(nullptr); now != formatted_second) {
    std::tm local;
    localtime_r(&now, &local);
    std::strftime(time, sizeof time, "%b %e %H:%M:%S", &local);
    formatted_second = now;
  }
  char text[96];
  const int priority = LOG_DAEMON | std::clamp(level, LOG_EMERG, LOG_DEBUG);
  std::snprintf(text, sizeof text, "<%d>%s corvaned[%d]: ", priority, time, getpid());
  return text;
}

}  // namespace

void SystemLog::write(int level, std::string_view text) {
  const std::string datagram = head(level).append(text);
  if (socket_ && (send(datagram) || errno == EAGAIN || errno == EMSGSIZE)) return;
  // There was no system log before, or it has been started anew.
  connect();
  if (socket_) send(datagram);
}

bool SystemLog::send(const std::string& datagram) const {
  return ::send(socket_->number(), datagram.data(), datagram.size(), MSG_NOSIGNAL) >= 0;
}

void SystemLog::connect() {
  const wire::SocketAddress address(path_);
  socket_.emplace(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (::connect(socket_->number(), address.get(), address.size()) != 0) socket_.reset();
}

}  // namespace corvane
