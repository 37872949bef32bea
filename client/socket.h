#pragma once

#include <chrono>
#include <string>
#include <utility>

namespace corvane::client {

/// Owns a socket, or none.
class Socket {
 public:
  Socket() = default;
  explicit Socket(int descriptor) : descriptor_(descriptor) {}
  Socket(Socket&& other) noexcept : descriptor_(std::exchange(other.descriptor_, -1)) {}
  Socket& operator=(Socket&& other) noexcept {
    std::swap(descriptor_, other.descriptor_);
    return *this;
  }
  /// Leaves errno as it is. A thread is not cancelled in it.
  ~Socket();

  /// -1 where there is none.
  int descriptor() const { return descriptor_; }
  explicit operator bool() const { return descriptor_ >= 0; }

 private:
  int descriptor_ = -1;
};

/// A connected non-blocking socket, or none with errno set. Waits while the listener's backlog is full; EAGAIN
/// where it still is when the timeout is over.
Socket connect_to(const std::string& path, std::chrono::milliseconds timeout);

}  // namespace corvane::client
