#include <gtest/gtest.h>

#include <array>
#include <chrono>

#include "fuzz/passed_sockets.h"
#include "tests/support/daemon_process.h"

// A client passes a descriptor along with its bytes and closes its own, so that the daemon would be the last to
// close it. Here that is a TCP socket with unsent data that lingers: closing it takes half a minute.

namespace corvane::testing {
namespace {

// Passes a lingering socket along with a byte, and closes it here. False where the kernel refuses.
bool pass_along(int socket, int connection) {
  const bool passed = send_with_descriptors(connection, "C", std::array{socket});
  if (!passed) LingeringSockets::set_linger(socket, 0);  // or closing it here would take as long
  close(socket);
  return passed;
}

// Passes lingering sockets over both public sockets, and asks in between.
void expect_nobody_waits(const Environment& environment, const DeviceRoot& root) {
  DaemonProcess daemon(environment);
  ASSERT_TRUE(eventually([&] { return access(root.socket(wire::public_service).c_str(), F_OK) == 0; }));
  const auto start = std::chrono::steady_clock::now();
  RawClient honest(root.socket(wire::public_service));
  LingeringSockets lingering;
  int passed = 0;
  for (int i = 0; i < 8; ++i) {
    SCOPED_TRACE(i);
    RawClient hostile(root.socket(i % 2 == 0 ? wire::public_service : wire::notification_service));
    kill(daemon.pid(), SIGSTOP);  // so that it is the last to close the socket
    passed += pass_along(lingering.make(), hostile.descriptor());
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
