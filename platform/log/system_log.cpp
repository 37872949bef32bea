// A socket of our own, because syslog(3) waits for as long as nobody reads what the system log holds.

#include "platform/log/system_log.h"

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <sys/socket.h>
#include <syslog.h>
#include <unistd.h>

#include "wire/socket_address.h"

namespace corvane {

namespace {

// As syslog(3) writes it: in local time, to the second. The second and the process rarely change: they are kept as
// text.
std::string head(int level) {
  static const std::string process = " corvaned[" + std::to_string(getpid()) + "]: ";
  thread_local std::time_t formatted_second = -1;
  thread_local char time[32];
  if (const std::time_t now = std::time(nullptr); now != formatted_second) {
    std::tm local;
    localtime_r(&now, &local);
    std::strftime(time, sizeof time, "%b %e %H:%M:%S", &local);
    formatted_second = now;
  }
  const int priority = LOG_DAEMON | std::clamp(level, LOG_EMERG, LOG_DEBUG);
  return "<" + std::to_string(priority) + ">" + time + process;
}

}  // namespace

void SystemLog::write(int level, std::string_view text) {
  connected_ = connected_ || connect();
  if (!connected_) return;
  const std::string datagram = head(level).append(text);
  if (send(datagram) || errno == EAGAIN || errno == EMSGSIZE) return;
  // It may have been started anew.
  connected_ = connect();
  if (connected_) send(datagram);
}

bool SystemLog::send(const std::string& datagram) const {
  return ::send(socket_->number(), datagram.data(), datagram.size(), MSG_NOSIGNAL) >= 0;
}

// The socket stays open where this fails, because making one takes much longer than asking again.
bool SystemLog::connect() {
  const wire::SocketAddress address(path_);
  if (!socket_ || !socket_->is_open()) {
    socket_.emplace(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  }
  return ::connect(socket_->number(), address.get(), address.size()) == 0;
}

}  // namespace corvane
