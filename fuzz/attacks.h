#pragma once

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <memory>
#include <poll.h>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

#include "wire/socket_address.h"

/// What strangers do to the daemon so that it serves nobody else.
namespace corvane::testing {

/// A connection that never waits for the daemon, unless it says so.
class HostileConnection {
 public:
  explicit HostileConnection(const std::string& socket)
      : socket_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {
    const wire::SocketAddress address(socket);
    is_connected_ = connect(socket_, address.get(), address.size()) == 0;
  }
  ~HostileConnection() { close(socket_); }
  HostileConnection(const HostileConnection&) = delete;
  HostileConnection& operator=(const HostileConnection&) = delete;

  /// False where the backlog was full.
  bool is_connected() const { return is_connected_; }
  int socket() const { return socket_; }
  size_t sent() const { return sent_; }
  bool has_ended() const {
    pollfd state{socket_, 0, 0};
    return poll(&state, 1, 0) == 1;
  }

  /// Sends as much as the socket takes: how much; -1 where the connection has ended.
  ssize_t send(std::string_view bytes) {
    const ssize_t count = ::send(socket_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (count < 0) return errno == EAGAIN ? 0 : -1;
    sent_ += static_cast<size_t>(count);
    return count;
  }
  /// Sends everything, and reads what comes meanwhile. False where the connection has ended or does not go on.
  bool send_all(std::string_view bytes) {
    while (!bytes.empty()) {
      pollfd state{socket_, POLLIN | POLLOUT, 0};
      if (poll(&state, 1, 2000) <= 0 || !receive()) return false;
      const ssize_t count = send(bytes);
      if (count < 0) return false;
      bytes.remove_prefix(static_cast<size_t>(count));
    }
    return true;
  }
  /// Reads what has come, no more than `most` bytes. False at the end of the connection.
  bool receive(size_t most = SIZE_MAX) {
    static std::array<char, 65536> buffer;
    while (most > 0) {
      const ssize_t count = recv(socket_, buffer.data(), std::min(most, buffer.size()), 0);
      if (count <= 0) return count < 0 && errno == EAGAIN;
      most -= static_cast<size_t>(count);
    }
    return true;
  }

 private:
  const int socket_;
  bool is_connected_ = false;
  size_t sent_ = 0;
};

/// Connections of one process. Those that the daemon closed, or did not take, are made anew at the next round.
class Crowd {
 public:
  Crowd(std::string socket, size_t count) : socket_(std::move(socket)), connections_(count) {}

  /// Has each connection do its step, which answers whether the connection goes on.
  template <class Step>
  void each(Step step) {
    for (auto& connection : connections_) {
      if (!connection) connection = std::make_unique<HostileConnection>(socket_);
      if (!connection->is_connected() || !step(*connection)) connection.reset();
    }
  }

 private:
  const std::string socket_;
  std::vector<std::unique_ptr<HostileConnection>> connections_;
};

/// What an attacker attacks. All attackers go on until they are killed, and count what they did.
struct Target {
  std::string public_socket;
  std::string notification_socket;
  size_t connections;  ///< more than the daemon has places
};
using Count = std::atomic<size_t>;

struct Attack {
  std::string name;
  std::vector<void (*)(const Target&, Count&)> attackers;  ///< each for a process of its own
};

extern const Attack passed_descriptors;
extern const Attack slow_writers;
extern const Attack unread_subscriptions;
std::vector<Attack> all_attacks();

}  // namespace corvane::testing
