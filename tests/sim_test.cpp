#include <gtest/gtest.h>

#include <optional>

#include "platform/process/small_file.h"
#include "plist/describe.h"
#include "tests/support/daemon_process.h"
#include "tools/plist_edit.h"

namespace corvane {
namespace {

using testing::DaemonProcess;
using testing::RawClient;
using Entries = std::vector<std::pair<std::string, plist::Ref<plist::Value>>>;

plist::Ref<plist::String> text(std::string_view utf8) { return plist::String::create(utf8); }

/// A root with one of the profiles that come with the daemon, edited like a person or a program would.
struct EditedDevice : testing::DeviceRoot {
  explicit EditedDevice(const std::string& name) {
    testing::write_file(profile(), testing::read_file(CORVANE_SOURCE_DIR "/profiles/" + name));
  }
  /// Writes the file in place; a null value takes the entry away.
  void write(const Entries& entries) const {
    const std::string copy = at("/copy.plist");
    testing::write_file(copy, testing::read_file(profile()));
    for (const auto& [key, value] : entries) {
      value ? tools::set_entry(copy, "Telephony." + key, value) : tools::unset_entry(copy, "Telephony." + key);
    }
    testing::write_file(profile(), testing::read_file(copy));
  }
  /// Puts another file in its place.
  void replace(const std::string& key, const plist::Ref<plist::Value>& value) const {
    tools::set_entry(profile(), "Telephony." + key, value);
  }
  void expect_ark(const std::string& expected) const {
    std::string ark;
    EXPECT_TRUE(testing::eventually([&] {
      DictionaryFile file(at("/private/var/mobile/Library/cvd/data_ark.plist"));
      return (ark = plist::describe(file.contents().dictionary.get())) == expected;
    })) << ark;
  }
};

std::string ark_text(const std::string& sim, const std::string& subscriber, const std::string& status) {
  return "{\"-IntegratedCircuitCardIdentity\": \"" + sim + "\", \"-InternationalMobileSubscriberIdentity\": \"" +
         subscriber + "\", \"-PreviousSIMStatus\": \"" + status + "\"}";
}

void expect_posts(RawClient& subscriber, int count) {
  const std::string name = "\"com.norvane.mobile.keelhold.phone_number_changed\"";
  for (int i = 0; i < count; ++i) {
    EXPECT_EQ(subscriber.answer(), "{\"Notification\": " + name + ", \"Object\": " + name + "}");
  }
  EXPECT_FALSE(subscriber.has_news(100));
}

TEST(Sim, IsFollowedByTheArkAndAnnouncedEvenInAStorm) {
  const EditedDevice device("phone.plist");
  std::optional<DaemonProcess> daemon(std::in_place, device);
  std::optional<RawClient> subscriber(std::in_place, device.socket(wire::notification_service));
  const auto expect_due = [&](int posts, const std::string& ark) {
    expect_posts(*subscriber, posts);
    device.expect_ark(ark);
  };
  device.write({{"SIMIdentity", text("1")}, {"SubscriberIdentity", text("a")}, {"SIMStatus", text("ready")}});
  expect_due(3, ark_text("1", "a", "ready"));
  device.write({});
  device.write({{"SIMIdentity", plist::Number::create_int32(1)}, {"SubscriberIdentity", text("b")}});
  expect_due(0, ark_text("1", "a", "ready"));
  device.replace("SIMIdentity", text("2"));
  expect_due(2, ark_text("2", "b", "ready"));
  device.write({{"PhoneNumber", text("+1555")}, {"SubscriberIdentity", text("c")}});
  expect_due(1, ark_text("2", "c", "ready"));
  device.replace("Errors.SIMIdentity.Error", plist::Number::create_int32(5));
  device.write({{"SIMIdentity", text("3")}, {"SubscriberIdentity", nullptr}});
  expect_due(2, ark_text("2", "c", "ready"));
  device.replace("NoConnection", plist::Boolean::yes());
  device.write({{"SIMIdentity", text("")}, {"SIMStatus", text("locked")}});
  expect_due(1, ark_text("2", "c", "locked"));
  EXPECT_NE(daemon->standard_error().find("Could not connect to Telvo"), std::string::npos);
  daemon.emplace(device);
  subscriber.emplace(device.socket(wire::notification_service));
  expect_due(0, ark_text("2", "c", "locked"));
  device.write({{"Errors", nullptr}, {"NoConnection", nullptr}, {"PhoneNumber", nullptr}});
  expect_due(1, R"({"-InternationalMobileSubscriberIdentity": "c", "-PreviousSIMStatus": "locked"})");
  device.write({{"SIMIdentity", text("4")}, {"SIMStatus", text("new")}, {"NoCentre", plist::Boolean::yes()}});
  expect_posts(*subscriber, 0);

  device.replace("NoCentre", plist::Boolean::no());
  RawClient client(device.socket(wire::public_service));
  std::string last;
  for (int i = 1; i <= 150; ++i) {
    last = std::to_string(i);
    device.replace("SIMIdentity", text("overtaken"));
    device.write({{"SIMIdentity", text(last)}, {"SubscriberIdentity", text(last)}, {"SIMStatus", text(last)}});
    ASSERT_EQ(client.ask("r"), testing::refusal("r"));
  }
  device.expect_ark(ark_text(last, last, last));
}

TEST(Sim, IsNotFollowedWithoutASubscription) {
  const EditedDevice newer("newer-phone.plist"), tablet("tablet.plist"), silent("phone.plist");
  silent.replace("NoCentre", plist::Boolean::yes());
  for (const EditedDevice* device : {&newer, &tablet, &silent}) {
    const DaemonProcess daemon(*device);
    RawClient subscriber(device->socket(wire::notification_service));
    device->write({{"SIMIdentity", text("1")}, {"SIMStatus", text("new")}});
    expect_posts(subscriber, 0);
    device->expect_ark("(null)");
    EXPECT_EQ(daemon.standard_error().find("Telvo phone center") < std::string::npos, device != &newer);
  }
}

}  // namespace
}  // namespace corvane
