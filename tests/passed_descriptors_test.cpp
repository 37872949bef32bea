#include <gtest/gtest.h>

#include <array>
#include <chrono>

#include "fuzz/passed_sockets.h"
#include "tests/support/daemon_process.h"

// A client passes a descriptor along with its bytes and closes its own, so that the daemon would be the last to
// close it. Here that is a TCP socket with unsent data that lingers: closing it takes half a minute. A kernel that
// refuses such descriptors is attacked by hostile_load.

namespace corvane::testing {
namespace {

TEST(PassedDescriptors, AreNeverWaitedForOnAKernelThatCannotRefuseThem) {
  const DeviceRoot root;
  Environment environment = root.environment();
  environment["LD_PRELOAD"] = CORVANE_OLD_KERNEL_SHIM;
  DaemonProcess daemon(environment);
  ASSERT_TRUE(eventually([&] { return access(root.socket(wire::public_service).c_str(), F_OK) == 0; }));
  const auto start = std::chrono::steady_clock::now();
  RawClient honest(root.socket(wire::public_service));
  LingeringSockets lingering;
  for (int i = 0; i < 8; ++i) {
    SCOPED_TRACE(i);
    const bool subscribes = i % 2 == 1;
    const int socket = lingering.make();
    kill(daemon.pid(), SIGSTOP);  // so that it is the last to close the socket
    RawClient hostile(root.socket(subscribes ? wire::notification_service : wire::public_service));
    const bool passed = send_with_descriptors(hostile.descriptor(), "C", std::array{socket});
    EXPECT_TRUE(passed || subscribes);  // once a subscriber is accepted it can send nothing
    if (!passed) LingeringSockets::set_linger(socket, 0);
    close(socket);
    kill(daemon.pid(), SIGCONT);
    EXPECT_EQ(honest.ask("r"), refusal("r"));
  }
  EXPECT_EQ(RawClient(root.socket(wire::public_service)).ask("r"), refusal("r"));
  EXPECT_NE(RawClient(root.socket(wire::admin_service)).ask(wire::copy_status).find("\"descriptors\": 4"),
            std::string::npos);
  EXPECT_EQ(daemon.end(SIGTERM), 0);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(15));
}

}  // namespace
}  // namespace corvane::testing
