#pragma once

#include <netinet/in.h>
#include <span>
#include <string_view>

/// Descriptors that a client passes along with its bytes, so that the daemon would be the last to close them.
namespace corvane::testing {

/// Makes TCP sockets whose last close waits for 30 s, because they have unsent bytes that nobody reads. They
/// linger as long as this lives.
class LingeringSockets {
 public:
  LingeringSockets();
  ~LingeringSockets();
  LingeringSockets(const LingeringSockets&) = delete;
  LingeringSockets& operator=(const LingeringSockets&) = delete;

  /// A new socket, which the caller closes. Throws std::runtime_error.
  int make();
  /// How many seconds the last close of a socket waits.
  static void set_linger(int socket, int seconds);

 private:
  sockaddr* address() { return reinterpret_cast<sockaddr*>(&address_); }

  const int listener_;
  sockaddr_in address_{};
};

/// Sends the bytes and, with the first of them, at most four descriptors. False where the kernel refuses.
bool send_with_descriptors(int socket, std::string_view bytes, std::span<const int> descriptors);

}  // namespace corvane::testing
