#pragma once

#include <chrono>
#include <string>

namespace corvane::client {

/// A connected non-blocking socket, which the caller closes, or -1 with errno set. A full backlog is waited for
/// until the timeout, which is EAGAIN.
int connect_to(const std::string& path, std::chrono::milliseconds timeout);

}  // namespace corvane::client
