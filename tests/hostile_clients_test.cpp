#include <gtest/gtest.h>

#include <chrono>
#include <deque>
#include <fstream>
#include <sys/resource.h>
#include <unistd.h>

#include "client/client.h"
#include "tests/support/daemon_process.h"
#include "wire/limits.h"

namespace corvane {
namespace {

using testing::DaemonProcess;
using testing::DeviceRoot;
using testing::eventually;
using testing::RawClient;
using testing::refusal;
using testing::request;

constexpr std::string_view copy_images = wire::copy_regulatory_images;
constexpr rlim_t few_descriptors = 100;
constexpr size_t few_connections = few_descriptors - wire::descriptor_reserve;

std::deque<RawClient> connect_many(const DeviceRoot& root, std::string_view service, size_t count) {
  std::deque<RawClient> clients;
  for (size_t i = 0; i < count; ++i) clients.emplace_back(root.socket(service));
  return clients;
}

// Ticks of processor time that a process has used.
long processor_time(pid_t pid) {
  std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
  std::string field;
  for (int i = 1; i < 14; ++i) file >> field;
  long user = 0;
  long system = 0;
  file >> user >> system;
  return user + system;
}

// Whoever opens more connections than the daemon keeps must not keep others out.
TEST(HostileClients, IdleOnesMakeRoomForHonestOnes) {
  const DeviceRoot root;
  const DaemonProcess daemon(root);
  const size_t held_before = daemon.descriptors();
  {
    const auto idle = connect_many(root, wire::public_service, 600);
    RawClient honest(root.socket(wire::public_service));
    EXPECT_EQ(honest.ask("something"), refusal("something"));
    EXPECT_LE(daemon.descriptors(), held_before + wire::public_connection_limit);
  }
  EXPECT_TRUE(eventually([&] { return daemon.descriptors() <= held_before; })) << daemon.descriptors();
}

TEST(HostileClients, EveryOneOfACrowdIsAnsweredWithFewDescriptors) {
  const DeviceRoot root;
  constexpr size_t crowd_size = 300;
  const DaemonProcess daemon(root, few_descriptors);
  const size_t held_before = daemon.descriptors();
  {
    const auto start = std::chrono::steady_clock::now();
    std::deque<RawClient> crowd;
    for (size_t i = 0; i < crowd_size; ++i) {
      ASSERT_TRUE(crowd.emplace_back(root.socket(wire::public_service)).send(request(std::to_string(i))));
    }
    for (size_t i = 0; i < crowd.size(); ++i) EXPECT_EQ(crowd[i].answer(), refusal(std::to_string(i)));
    // Nobody was pushed out before its grace was over.
    const auto rounds = crowd_size / few_connections - 1;
    EXPECT_GE(std::chrono::steady_clock::now() - start, rounds * wire::eviction_grace);
  }
  EXPECT_TRUE(eventually([&] { return daemon.descriptors() <= held_before; })) << daemon.descriptors();
}

TEST(HostileClients, TheOneSilentForLongestGoesAndTheClientLibraryComesBack) {
  const DeviceRoot root;
  const DaemonProcess daemon(root, few_descriptors);
  client::Connection library_client(wire::public_service, root.at(""));
  EXPECT_EQ(client::copy_regulatory_images(library_client).outcome, client::Outcome::answered);

  // The library's connection goes for the last of these, and the second for the one that comes after.
  auto clients = connect_many(root, wire::public_service, few_connections);
  for (RawClient& client : clients) EXPECT_EQ(client.ask("r"), refusal("r"));
  EXPECT_EQ(clients[0].ask("r"), refusal("r"));
  RawClient newcomer(root.socket(wire::public_service));
  EXPECT_EQ(newcomer.ask("r"), refusal("r"));
  EXPECT_TRUE(clients[1].ends());
  EXPECT_EQ(clients[0].ask("r"), refusal("r"));
  EXPECT_EQ(clients[2].ask("r"), refusal("r"));

  EXPECT_EQ(client::copy_regulatory_images(library_client).outcome, client::Outcome::answered);
}

TEST(HostileClients, OneAdminConnectionTooManyIsTurnedAway) {
  const DeviceRoot root;
  const DaemonProcess daemon(root);
  auto operators = connect_many(root, wire::admin_service, wire::admin_connection_limit);
  for (RawClient& each : operators) EXPECT_EQ(each.ask("r"), refusal("r"));
  EXPECT_TRUE(RawClient(root.socket(wire::admin_service)).ends());
  for (RawClient& each : operators) EXPECT_EQ(each.ask("r"), refusal("r"));
  operators.pop_back();
  EXPECT_TRUE(eventually([&] { return RawClient(root.socket(wire::admin_service)).ask("r") == refusal("r"); }));
}

// Without a descriptor for a newcomer accept(2) fails at once, over and over, for as long as one waits.
TEST(HostileClients, ANewcomerWaitsInPeaceForADescriptor) {
  const DeviceRoot root;
  const DaemonProcess daemon(root);
  RawClient early(root.socket(wire::public_service));
  EXPECT_EQ(early.ask("r"), refusal("r"));
  rlimit before{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
  const rlimit exhausted{1, before.rlim_max};
  ASSERT_EQ(prlimit(daemon.pid(), RLIMIT_NOFILE, &exhausted, nullptr), 0);

  RawClient late(root.socket(wire::public_service));
  ASSERT_TRUE(late.send(request("late")));
  const long used_before = processor_time(daemon.pid());
  EXPECT_FALSE(late.has_news(1000));
  EXPECT_LT(processor_time(daemon.pid()) - used_before, sysconf(_SC_CLK_TCK) / 2);
  EXPECT_EQ(early.ask("r"), refusal("r"));

  ASSERT_EQ(prlimit(daemon.pid(), RLIMIT_NOFILE, &before, nullptr), 0);
  EXPECT_EQ(late.answer(), refusal("late"));
}

// One asks for more than it reads, one sends less than it announced, one dies halfway.
TEST(HostileClients, ThoseWhoKeepTheDaemonWaitingAreClosedAndCostLittle) {
  constexpr size_t image_size = 8u << 20;
  const DeviceRoot root;
  const DaemonProcess daemon(root);
  client::Connection admin(wire::admin_service, root.at(""));
  const auto image = plist::Data::create(std::string(image_size, 'x'));
  ASSERT_EQ(client::store_regulatory_images(admin, image).outcome, client::Outcome::answered);
  const size_t resident_before = daemon.resident_bytes();
  const size_t held_before = daemon.descriptors();

  RawClient never_reads(root.socket(wire::public_service));
  RawClient trickles(root.socket(wire::public_service));
  RawClient idle(root.socket(wire::public_service));
  for (int i = 0; i < 200; ++i) ASSERT_TRUE(never_reads.send(request(copy_images)));
  ASSERT_TRUE(trickles.send(request("r").substr(0, 1)));
  ASSERT_TRUE(RawClient(root.socket(wire::public_service)).send(request("r").substr(0, 20)));

  RawClient honest(root.socket(wire::public_service));
  EXPECT_TRUE(eventually([&] {
    EXPECT_EQ(honest.ask("r"), refusal("r"));
    EXPECT_LT(daemon.resident_bytes(), resident_before + 6 * image_size);
    return trickles.has_news() && daemon.descriptors() <= held_before + 2;
  }));
  EXPECT_TRUE(trickles.ends());
  EXPECT_EQ(idle.ask("r"), refusal("r"));
  EXPECT_FALSE(never_reads.send(request("r")));
}

}  // namespace
}  // namespace corvane
