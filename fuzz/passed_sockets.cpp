#include "fuzz/passed_sockets.h"

#include <array>
#include <cstring>
#include <stdexcept>
#include <sys/socket.h>
#include <unistd.h>

namespace corvane::testing {

LingeringSockets::LingeringSockets() : listener_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  address_.sin_family = AF_INET;
  address_.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address_;
  bind(listener_, address(), size);
  getsockname(listener_, address(), &size);
  listen(listener_, 4096);
}

LingeringSockets::~LingeringSockets() { close(listener_); }

int LingeringSockets::make() {
  const int made = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (connect(made, address(), sizeof address_) != 0) throw std::runtime_error("no TCP connection");
  static const std::array<char, 65536> bytes{};
  while (send(made, bytes.data(), bytes.size(), MSG_DONTWAIT) > 0) {
  }
  set_linger(made, 30);
  return made;
}

void LingeringSockets::set_linger(int socket, int seconds) {
  const linger value{1, seconds};
  setsockopt(socket, SOL_SOCKET, SO_LINGER, &value, sizeof value);
}

bool send_with_descriptors(int socket, std::string_view bytes, std::span<const int> descriptors) {
  alignas(cmsghdr) char control[CMSG_SPACE(4 * sizeof(int))] = {};
  iovec content{const_cast<char*>(bytes.data()), bytes.size()};
  msghdr message{};
  message.msg_iov = &content;
  message.msg_iovlen = 1;
  message.msg_control = control;
  message.msg_controllen = CMSG_SPACE(descriptors.size_bytes());
  cmsghdr* header = CMSG_FIRSTHDR(&message);
  header->cmsg_level = SOL_SOCKET;
  header->cmsg_type = SCM_RIGHTS;
  header->cmsg_len = CMSG_LEN(descriptors.size_bytes());
  std::memcpy(CMSG_DATA(header), descriptors.data(), descriptors.size_bytes());
  return sendmsg(socket, &message, MSG_NOSIGNAL) > 0;
}

}  // namespace corvane::testing
