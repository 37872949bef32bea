#pragma once

#include <chrono>
#include <string>

namespace corvane::client {

/// A connected non-blocking socket, which the caller closes, or -1 with errno set. Waits while the listener's
/// backlog is full; EAGAIN where it still is when the timeout is over.
int connect_to(const std::string& path, std::chrono::milliseconds timeout);

}  // namespace corvane::client
