#include <gtest/gtest.h>

#include <deque>

#include "client/client.h"
#include "client/methods.h"
#include "tests/support/daemon_process.h"
#include "wire/limits.h"

namespace corvane {
namespace {

using namespace testing;

constexpr rlim_t few_descriptors = 200;
constexpr size_t few_connections = wire::connection_limits(few_descriptors).public_connections;

class HostileClients : public ::testing::Test {
 protected:
  // Whatever the clients of a test did, nothing is left of them.
  ~HostileClients() override {
    EXPECT_TRUE(eventually([&] { return daemon_.descriptors() <= held_before_; })) << daemon_.descriptors();
  }

  RawClient client() const { return RawClient(root_.socket(wire::public_service)); }
  std::deque<RawClient> clients(size_t count, std::string_view service = wire::public_service) const {
    std::deque<RawClient> all;
    while (all.size() < count) all.emplace_back(root_.socket(service));
    return all;
  }

  const DeviceRoot root_;
  const DaemonProcess daemon_{root_, few_descriptors};
  const size_t held_before_ = daemon_.descriptors();
};

TEST_F(HostileClients, AProcessThatTakesAllConnectionsLosesItsIdleOnesFirst) {
  client::Connection library_client(wire::public_service, root_.at(""));
  EXPECT_EQ(client::copy_regulatory_images(library_client).outcome, client::Outcome::answered);

  // The last of these takes the place of the library's connection, and the next one that of the second.
  auto many = clients(few_connections);
  for (RawClient& each : many) EXPECT_EQ(each.ask("r"), refusal("r"));
  EXPECT_EQ(many[0].ask("r"), refusal("r"));
  EXPECT_EQ(client().ask("r"), refusal("r"));
  EXPECT_TRUE(many[1].ends());
  for (const size_t kept : {0u, 2u}) EXPECT_EQ(many[kept].ask("r"), refusal("r"));
  EXPECT_EQ(client::copy_regulatory_images(library_client).outcome, client::Outcome::answered);
}

TEST_F(HostileClients, OneAdminConnectionTooManyIsRefused) {
  auto operators = clients(wire::admin_connection_limit, wire::admin_service);
  EXPECT_TRUE(clients(1, wire::admin_service)[0].ends());
  for (RawClient& each : operators) EXPECT_EQ(each.ask("r"), refusal("r"));
  operators.pop_back();
  EXPECT_TRUE(eventually([&] { return clients(1, wire::admin_service)[0].ask("r") == refusal("r"); }));
}

// Idle ones had taken the descriptors of all the others.
TEST_F(HostileClients, TheIdleLeaveDescriptorsToAllOthers) {
  const auto subscribers = clients(wire::subscriber_limit, wire::notification_service);
  const auto idle = clients(2 * few_descriptors);
  const auto operators = clients(wire::admin_connection_limit - 1, wire::admin_service);
  client::Connection admin(wire::admin_service, root_.at(""));
  const auto images = plist::String::create("images");
  EXPECT_EQ(client::store_regulatory_images(admin, images).outcome, client::Outcome::answered);
  EXPECT_NE(client().ask(wire::copy_regulatory_images).find("\"images\""), std::string::npos);
}

TEST_F(HostileClients, ANewConnectionWaitsForADescriptor) {
  RawClient early = client();
  EXPECT_EQ(early.ask("r"), refusal("r"));
  const rlimit before{few_descriptors, few_descriptors}, exhausted{1, few_descriptors};
  ASSERT_EQ(prlimit(daemon_.pid(), RLIMIT_NOFILE, &exhausted, nullptr), 0);
  RawClient late = client();
  ASSERT_TRUE(late.send(request("late")));
  EXPECT_TRUE(early.ends());  // in vain: its descriptor is not one of those that are left
  ASSERT_EQ(prlimit(daemon_.pid(), RLIMIT_NOFILE, &before, nullptr), 0);
  EXPECT_EQ(late.answer(), refusal("late"));
}

}  // namespace
}  // namespace corvane
