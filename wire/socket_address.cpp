#include "wire/socket_address.h"

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

namespace corvane::wire {

namespace {

constexpr std::string_view socket_folder = "/run/corvaned/";

}  // namespace

std::string socket_path(std::string_view root, std::string_view service_name) {
  return std::string(root).append(socket_folder).append(service_name);
}

SocketAddress::SocketAddress(const std::string& path) {
  address_.sun_family = AF_UNIX;
  if (fits(path)) return;
  const size_t slash = path.rfind('/');
  folder_ = open(path.substr(0, slash).c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
  if (folder_ < 0) {
    error_ = errno;
  } else if (!fits("/proc/self/fd/" + std::to_string(folder_) + path.substr(slash))) {
    error_ = ENAMETOOLONG;
  }
}

SocketAddress::~SocketAddress() {
  if (folder_ >= 0) close(folder_);
}

bool SocketAddress::fits(const std::string& path) {
  if (path.size() >= sizeof(address_.sun_path)) return false;
  path.copy(address_.sun_path, path.size());
  address_.sun_path[path.size()] = '\0';
  return true;
}

}  // namespace corvane::wire
