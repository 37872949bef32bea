// Preloaded into the daemon: the kernel does not know SO_PASSRIGHTS, as before Linux 6.16.

#include <cerrno>
#include <dlfcn.h>
#include <sys/socket.h>

extern "C" int setsockopt(int socket, int level, int name, const void* value, socklen_t size) noexcept {
  constexpr int so_passrights = 83;
  if (level == SOL_SOCKET && name == so_passrights) {
    errno = ENOPROTOOPT;
    return -1;
  }
  static const auto next = reinterpret_cast<decltype(&setsockopt)>(dlsym(RTLD_NEXT, "setsockopt"));
  return next(socket, level, name, value, size);
}
