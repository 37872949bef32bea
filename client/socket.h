#pragma once

#include <chrono>
#include <string>
#include <string_view>

namespace corvane::client {

/// The path of a service's socket below `root`.
std::string socket_path(std::string_view service_name, const std::string& root);

/// A connected non-blocking socket, which the caller closes, or -1 with errno set. A full queue of newcomers is
/// waited for until the timeout, which is EAGAIN.
int connect_to(const std::string& path, std::chrono::milliseconds timeout);

}  // namespace corvane::client
