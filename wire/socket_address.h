#pragma once

#include <string>
#include <string_view>
#include <sys/socket.h>
#include <sys/un.h>

namespace corvane::wire {

/// Where the socket of a service lies below `root`.
std::string socket_path(std::string_view root, std::string_view service_name);

/// The address of a local socket at any absolute path. A path that is too long for sun_path is written as
/// /proc/self/fd/<descriptor of its folder>/<name>; the descriptor, and so the address, lives as long as the
/// object.
class SocketAddress {
 public:
  explicit SocketAddress(const std::string& path);
  ~SocketAddress();
  SocketAddress(const SocketAddress&) = delete;
  SocketAddress& operator=(const SocketAddress&) = delete;

  /// 0, or the errno that says why there is no address.
  int error() const { return error_; }
  const sockaddr* get() const { return reinterpret_cast<const sockaddr*>(&address_); }
  socklen_t size() const { return sizeof(address_); }
  /// The path by which this address names the socket file.
  const char* path() const { return address_.sun_path; }

 private:
  bool fits(const std::string& path);

  sockaddr_un address_{};
  int folder_ = -1;
  int error_ = 0;
};

}  // namespace corvane::wire
