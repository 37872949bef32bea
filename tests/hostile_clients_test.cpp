#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <deque>

#include "client/client.h"
#include "tests/support/daemon_process.h"
#include "wire/limits.h"

namespace corvane {
namespace {

using testing::eventually;
using testing::Lines;
using testing::RawClient;
using testing::refusal;
using testing::request;

constexpr rlim_t few_descriptors = 100;
constexpr size_t few_connections = wire::connection_limits(few_descriptors).public_connections;

class HostileClients : public ::testing::Test {
 protected:
  explicit HostileClients(rlim_t descriptors = 0) : daemon_(root_, descriptors) {}
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

  const testing::DeviceRoot root_;
  const testing::DaemonProcess daemon_;
  const size_t held_before_ = daemon_.descriptors();
};

class HostileToFewDescriptors : public HostileClients {
 protected:
  HostileToFewDescriptors() : HostileClients(few_descriptors) {}
};

// The seconds of processor time that a process has used.
double processor_time(pid_t pid) {
  clockid_t clock;
  timespec time{};
  EXPECT_TRUE(clock_getcpuclockid(pid, &clock) == 0 && clock_gettime(clock, &time) == 0);
  return static_cast<double>(time.tv_sec) + 1e-9 * static_cast<double>(time.tv_nsec);
}

// Whoever opens more connections than the daemon keeps must not keep others out.
TEST_F(HostileClients, IdleOnesMakeRoomForHonestOnes) {
  const auto idle = clients(600);
  EXPECT_EQ(client().ask("something"), refusal("something"));
  EXPECT_LE(daemon_.descriptors(), held_before_ + wire::public_connection_limit);
}

TEST_F(HostileToFewDescriptors, EveryOneOfACrowdIsAnswered) {
  constexpr size_t crowd_size = 300;
  const auto start = std::chrono::steady_clock::now();
  std::deque<RawClient> crowd;
  for (size_t i = 0; i < crowd_size; ++i) {
    ASSERT_TRUE(crowd.emplace_back(root_.socket(wire::public_service)).send(request(std::to_string(i))));
  }
  for (size_t i = 0; i < crowd_size; ++i) EXPECT_EQ(crowd[i].answer(), refusal(std::to_string(i)));
  // Nobody was pushed out before its grace was over.
  EXPECT_GE(std::chrono::steady_clock::now() - start, (crowd_size / few_connections - 1) * wire::eviction_grace);
}

TEST_F(HostileToFewDescriptors, TheOneSilentForLongestGoesAndTheClientLibraryComesBack) {
  client::Connection library_client(wire::public_service, root_.at(""));
  EXPECT_EQ(client::copy_regulatory_images(library_client).outcome, client::Outcome::answered);

  // The library's connection goes for the last of these, and the second for the one that comes after.
  auto many = clients(few_connections);
  for (RawClient& each : many) EXPECT_EQ(each.ask("r"), refusal("r"));
  EXPECT_EQ(many[0].ask("r"), refusal("r"));
  EXPECT_EQ(client().ask("r"), refusal("r"));
  EXPECT_TRUE(many[1].ends());
  for (const size_t kept : {0u, 2u}) EXPECT_EQ(many[kept].ask("r"), refusal("r"));
  EXPECT_EQ(client::copy_regulatory_images(library_client).outcome, client::Outcome::answered);
}

TEST_F(HostileClients, OneAdminConnectionTooManyIsTurnedAway) {
  auto operators = clients(wire::admin_connection_limit, wire::admin_service);
  for (RawClient& each : operators) EXPECT_EQ(each.ask("r"), refusal("r"));
  EXPECT_TRUE(clients(1, wire::admin_service)[0].ends());
  for (RawClient& each : operators) EXPECT_EQ(each.ask("r"), refusal("r"));
  operators.pop_back();
  EXPECT_TRUE(eventually([&] { return clients(1, wire::admin_service)[0].ask("r") == refusal("r"); }));
}

// Idle ones had taken the descriptors of all the others.
TEST_F(HostileToFewDescriptors, TheIdleLeaveDescriptorsToAllOthers) {
  const auto subscribers = clients(wire::subscriber_limit, wire::notification_service);
  const auto idle = clients(2 * few_descriptors);
  auto operators = clients(wire::admin_connection_limit - 1, wire::admin_service);
  for (RawClient& each : operators) EXPECT_EQ(each.ask("r"), refusal("r"));
  client::Connection admin(wire::admin_service, root_.at(""));
  const auto images = plist::String::create("images");
  EXPECT_EQ(client::store_regulatory_images(admin, images).outcome, client::Outcome::answered);
  EXPECT_NE(client().ask(wire::copy_regulatory_images).find("\"images\""), std::string::npos);
}

// Without a descriptor for a newcomer accept(2) fails at once, over and over, for as long as one waits.
TEST_F(HostileClients, ANewcomerWaitsInPeaceForADescriptor) {
  RawClient early = client();
  EXPECT_EQ(early.ask("r"), refusal("r"));
  rlimit before;
  ASSERT_EQ(prlimit(daemon_.pid(), RLIMIT_NOFILE, nullptr, &before), 0);
  const rlimit exhausted{1, before.rlim_max};
  ASSERT_EQ(prlimit(daemon_.pid(), RLIMIT_NOFILE, &exhausted, nullptr), 0);
  RawClient late = client();
  ASSERT_TRUE(late.send(request("late")));
  const double used_before = processor_time(daemon_.pid());
  EXPECT_FALSE(late.has_news(1000));
  EXPECT_LT(processor_time(daemon_.pid()) - used_before, 0.5);
  EXPECT_TRUE(early.ends());  // in vain: its descriptor is not one of those that are left

  ASSERT_EQ(prlimit(daemon_.pid(), RLIMIT_NOFILE, &before, nullptr), 0);
  EXPECT_EQ(late.answer(), refusal("late"));
}

// Many ask for more than they read, one sends less than it announced, one dies halfway.
TEST_F(HostileClients, ThoseWhoKeepTheDaemonWaitingAreClosedAndCostLittle) {
  constexpr size_t image_size = 8u << 20;
  client::Connection admin(wire::admin_service, root_.at(""));
  const auto image = plist::Data::create(std::string(image_size, 'x'));
  ASSERT_EQ(client::store_regulatory_images(admin, image).outcome, client::Outcome::answered);
  [[maybe_unused]] const size_t resident_before = daemon_.resident_bytes();
  size_t most = 0;

  auto never_read = clients(100);  // together they ask for three times as much as the daemon holds for all
  RawClient trickles = client();
  RawClient idle = client();
  RawClient honest = client();
  for (int i = 0; i < 200; ++i) ASSERT_TRUE(never_read[0].send(request(wire::copy_regulatory_images)));
  for (RawClient& each : never_read) ASSERT_TRUE(each.send(request(wire::copy_regulatory_images)));
  ASSERT_TRUE(trickles.send(request("r").substr(0, 1)));
  ASSERT_TRUE(client().send(request("r").substr(0, 20)));
  EXPECT_TRUE(eventually([&] {
    EXPECT_EQ(honest.ask("r"), refusal("r"));
    most = std::max(most, daemon_.resident_bytes());
    return trickles.has_news() && daemon_.descriptors() <= held_before_ + 3;
  }));
  EXPECT_TRUE(trickles.ends());
  EXPECT_EQ(idle.ask("r"), refusal("r"));
  for (RawClient& each : never_read) EXPECT_FALSE(each.send(request("r")));
#ifndef CORVANE_SANITIZE  // sanitizers hold back what was freed
  EXPECT_LT(most, resident_before + wire::all_unread_output_limit + 4 * image_size);
  EXPECT_LT(daemon_.resident_bytes(), resident_before + 4 * image_size);
#endif
  const Lines log = daemon_.log();
  const auto tells_of_one = [](const std::string& line) {
    return line.find("closed a conn") != std::string::npos;
  };
  EXPECT_LT(std::count_if(log.begin(), log.end(), tells_of_one), 30);
}

}  // namespace
}  // namespace corvane
