#include <gtest/gtest.h>

#include <optional>

#include "tests/support/daemon_process.h"
#include "tests/support/simulated_root.h"

namespace corvane {
namespace {

using testing::DaemonProcess;
using testing::RawClient;
using testing::SimulatedRoot;

plist::Ref<plist::String> text(std::string_view utf8) { return plist::String::create(utf8); }

std::string ark_text(const std::string& sim, const std::string& owner, const std::string& status) {
  return "{\"-IntegratedCircuitCardIdentity\": \"" + sim + "\", \"-InternationalMobileSubscriberIdentity\": \"" +
         owner + "\", \"-PreviousSIMStatus\": \"" + status + "\"}";
}

void expect_posts(RawClient& subscriber, int count) {
  const std::string name = "\"com.norvane.mobile.keelhold.phone_number_changed\"";
  for (int i = 0; i < count; ++i) {
    EXPECT_EQ(subscriber.answer(), "{\"Notification\": " + name + ", \"Object\": " + name + "}");
  }
  EXPECT_FALSE(subscriber.has_news(100)) << "no more than " << count;
}

/// A phone that runs, with SIM "1" of owner "a" in it.
class Sim : public ::testing::Test {
 protected:
  Sim() {
    device.rewrite({{"SIMIdentity", text("1")}, {"SubscriberIdentity", text("a")}, {"SIMStatus", text("ready")}});
    expect("inserted: announced, and looked up for it and for its status", 3, ark_text("1", "a", "ready"));
  }
  void expect(const char* step, int posts, const std::string& ark) {
    SCOPED_TRACE(step);
    expect_posts(*subscriber, posts);
    device.expect_ark(ark);
  }

  const SimulatedRoot device{"phone.plist"};
  std::optional<DaemonProcess> daemon{std::in_place, device};
  std::optional<RawClient> subscriber{std::in_place, device.socket(wire::notification_service)};
};

TEST_F(Sim, IsLookedUpOnlyAfterANotification) {
  device.rewrite({{"SubscriberIdentity", text("b")}});
  expect("another owner, without a notification", 0, ark_text("1", "a", "ready"));
  device.rewrite({{"PhoneNumber", text("+1555")}});
  expect("a new phone number", 1, ark_text("1", "b", "ready"));
}

TEST_F(Sim, IsKnownAfterARestartAndFollowedToItsRemoval) {
  daemon.emplace(device);
  subscriber.emplace(device.socket(wire::notification_service));
  expect("started again", 0, ark_text("1", "a", "ready"));
  device.replace({{"SIMIdentity", text("2")}});
  expect("another SIM", 2, ark_text("2", "a", "ready"));
  device.rewrite({{"SIMIdentity", text("")}, {"SIMStatus", text("absent")}});
  expect("removed", 1, R"({"-InternationalMobileSubscriberIdentity": "a", "-PreviousSIMStatus": "absent"})");
}

TEST_F(Sim, IsFollowedToTheLastOfManyQuickEditsWhileClientsAreServed) {
  RawClient client(device.socket(wire::public_service));
  std::string last;
  for (int i = 2; i <= 150; ++i) {
    last = std::to_string(i);
    device.replace({{"SIMIdentity", text("overtaken")}});
    device.rewrite({{"SIMIdentity", text(last)}, {"SubscriberIdentity", text(last)}, {"SIMStatus", text(last)}});
    ASSERT_EQ(client.ask("r"), testing::refusal("r"));
  }
  device.expect_ark(ark_text(last, last, last));
}

TEST(SimWithoutSubscription, IsNotFollowed) {
  for (const char* profile : {"newer-phone.plist", "tablet.plist"}) {
    SCOPED_TRACE(profile);
    const SimulatedRoot device(profile);
    const DaemonProcess daemon(device);
    RawClient subscriber(device.socket(wire::notification_service));
    device.rewrite({{"SIMIdentity", text("1")}, {"SIMStatus", text("new")}});
    expect_posts(subscriber, 0);
    device.expect_ark("(null)");
  }
}

}  // namespace
}  // namespace corvane
