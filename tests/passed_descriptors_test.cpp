#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <chrono>
#include <cstring>
#include <deque>
#include <netinet/in.h>

#include "tests/support/daemon_process.h"

// A client passes a descriptor along with its bytes and closes its own, so that the daemon would be the last to
// close it. Here that is a TCP socket with unsent data that lingers: closing it takes half a minute.

namespace corvane::testing {
namespace {

/// A connection over loopback whose other end never reads.
class LingeringSocket {
 public:
  LingeringSocket() {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    EXPECT_EQ(bind(listening_, reinterpret_cast<sockaddr*>(&address), size), 0);
    EXPECT_EQ(listen(listening_, 1), 0);
    getsockname(listening_, reinterpret_cast<sockaddr*>(&address), &size);
    EXPECT_EQ(connect(socket_, reinterpret_cast<sockaddr*>(&address), size), 0);
    const linger half_a_minute{1, 30};
    setsockopt(socket_, SOL_SOCKET, SO_LINGER, &half_a_minute, sizeof half_a_minute);
    const std::string bytes(1 << 20, 'x');
    while (::send(socket_, bytes.data(), bytes.size(), MSG_DONTWAIT) > 0) {
    }
  }
  ~LingeringSocket() { close(listening_); }

  /// Passes the socket along with a byte, and closes it here. False where the kernel refuses.
  bool pass_along(int connection) {
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof socket_)] = {};
    char byte = 'C';
    iovec content{&byte, 1};
    msghdr message{};
    message.msg_iov = &content;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    cmsghdr* header = CMSG_FIRSTHDR(&message);
    header->cmsg_level = SOL_SOCKET;
    header->cmsg_type = SCM_RIGHTS;
    header->cmsg_len = CMSG_LEN(sizeof socket_);
    std::memcpy(CMSG_DATA(header), &socket_, sizeof socket_);
    const bool passed = sendmsg(connection, &message, MSG_NOSIGNAL) == 1;
    const linger none{1, 0};  // or closing it here would take as long
    if (!passed) setsockopt(socket_, SOL_SOCKET, SO_LINGER, &none, sizeof none);
    close(socket_);
    return passed;
  }

 private:
  const int listening_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const int socket_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
};

// Passes lingering sockets over both public sockets, and asks in between.
void expect_nobody_waits(const Environment& environment, const DeviceRoot& root) {
  DaemonProcess daemon(environment);
  ASSERT_TRUE(eventually([&] { return access(root.socket(wire::public_service).c_str(), F_OK) == 0; }));
  const auto start = std::chrono::steady_clock::now();
  RawClient honest(root.socket(wire::public_service));
  std::deque<LingeringSocket> lingering;  // their other ends stay open
  int passed = 0;
  for (int i = 0; i < 8; ++i) {
    SCOPED_TRACE(i);
    RawClient hostile(root.socket(i % 2 == 0 ? wire::public_service : wire::notification_service));
    kill(daemon.pid(), SIGSTOP);  // so that it is the last to close the socket
    passed += lingering.emplace_back().pass_along(hostile.descriptor());
    kill(daemon.pid(), SIGCONT);
    EXPECT_EQ(honest.ask("r"), refusal("r"));
  }
  EXPECT_EQ(RawClient(root.socket(wire::public_service)).ask("r"), refusal("r"));
  EXPECT_EQ(daemon.end(SIGTERM), 0);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(15));
  const bool is_old_kernel = environment.contains("LD_PRELOAD");
  EXPECT_TRUE(passed > 0 || !is_old_kernel) << "nothing was passed, so nothing was tested";
}

TEST(PassedDescriptors, AreNeverWaitedForWithTheKernelThatThereIs) {
  const DeviceRoot root;
  expect_nobody_waits(root.environment(), root);
}

#ifndef CORVANE_SANITIZE  // which would want to be preloaded first
TEST(PassedDescriptors, AreNeverWaitedForOnAKernelThatCannotRefuseThem) {
  const DeviceRoot root;
  Environment environment = root.environment();
  environment["LD_PRELOAD"] = CORVANE_OLD_KERNEL_SHIM;
  expect_nobody_waits(environment, root);
}
#endif

}  // namespace
}  // namespace corvane::testing
