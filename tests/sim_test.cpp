#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <optional>
#include <thread>

#include "client/client.h"
#include "platform/common/small_file.h"
#include "platform/run_loop.h"
#include "platform/simulated/simulated_telephony.h"
#include "plist/describe.h"
#include "tests/support/daemon_process.h"
#include "tests/support/test_platform.h"
#include "tools/plist_edit.h"

namespace corvane {
namespace {

using testing::DaemonProcess;
using testing::DeviceRoot;
using testing::eventually;
using testing::Lines;
using testing::RawClient;
using Entries = std::vector<std::pair<const char*, plist::Ref<plist::Value>>>;

constexpr char no_images[] = R"({"Request": "copyRegulatoryImagesWithCompletionBlock:"})";
constexpr char changed_post[] = R"({"Notification": "com.norvane.mobile.keelhold.phone_number_changed", )"
                                R"("Object": "com.norvane.mobile.keelhold.phone_number_changed"})";
#ifdef CORVANE_SANITIZE
constexpr int storm_changes = 100;
#else
constexpr int storm_changes = 500;
#endif

const std::string below_telephony = "Telephony.";

plist::Ref<plist::Value> text(std::string_view utf8) { return plist::String::create(utf8); }

/// A root with one of the profiles that come with the daemon, edited like a person or a program would.
struct EditedDevice : DeviceRoot {
  explicit EditedDevice(const std::string& name) {
    testing::write_file(profile(), testing::read_file(CORVANE_SOURCE_DIR "/profiles/" + name));
  }
  /// Writes the file in place; a null value takes the entry away.
  void write(const Entries& entries) const {
    const std::string copy = at("/copy.plist");
    testing::write_file(copy, testing::read_file(profile()));
    for (const auto& [key, value] : entries) {
      value ? tools::set_entry(copy, below_telephony + key, value)
            : tools::unset_entry(copy, below_telephony + key);
    }
    testing::write_file(profile(), testing::read_file(copy));
  }
  /// Puts another file in its place.
  void replace(const std::string& key, const plist::Ref<plist::Value>& value) const {
    tools::set_entry(profile(), below_telephony + key, value);
  }
  std::string ark() const {
    DictionaryFile file(at("/private/var/mobile/Library/cvd/data_ark.plist"));
    return plist::describe(file.contents().dictionary.get());
  }
  void expect_ark(const std::string& expected) const {
    EXPECT_TRUE(eventually([&] { return ark() == expected; })) << ark() << " is not " << expected;
  }
};

std::string ark_text(const std::string& sim, const std::string& subscriber, const std::string& status) {
  return "{\"-IntegratedCircuitCardIdentity\": \"" + sim + "\", \"-InternationalMobileSubscriberIdentity\": \"" +
         subscriber + "\", \"-PreviousSIMStatus\": \"" + status + "\"}";
}

void expect_posts(RawClient& subscriber, int count) {
  for (int i = 0; i < count; ++i) EXPECT_EQ(subscriber.answer(), changed_post);
  EXPECT_FALSE(subscriber.has_news(100));
}

Lines telephony_lines(const DaemonProcess& daemon) {
  Lines lines;
  for (const std::string& line : daemon.log()) {
    if (line.starts_with("lookup_") || line.starts_with("register"))
      lines.push_back(line.substr(line.find(' ') + 1));
  }
  return lines;
}

TEST(Sim, IsFollowedByTheArkAndAnnounced) {
  const EditedDevice device("phone.plist");
  std::optional<DaemonProcess> daemon(std::in_place, device);
  std::optional<RawClient> subscriber(std::in_place, device.socket(wire::notification_service));
  const auto expect_due = [&](int posts, const std::string& ark) {
    expect_posts(*subscriber, posts);
    device.expect_ark(ark);
  };
  expect_due(0, "(null)");
  device.write({{"SIMIdentity", text("1")}, {"SubscriberIdentity", text("a")}, {"SIMStatus", text("ready")}});
  expect_due(3, ark_text("1", "a", "ready"));
  device.replace("SIMIdentity", text("2"));
  expect_due(2, ark_text("2", "a", "ready"));
  device.replace("SubscriberIdentity", text("b"));
  expect_due(0, ark_text("2", "a", "ready"));
  device.replace("PhoneNumber", text("+1555"));
  expect_due(1, ark_text("2", "b", "ready"));
  device.replace("Errors.SIMIdentity.Error", plist::Number::create_int32(5));
  device.write({{"SIMIdentity", text("3")}, {"SubscriberIdentity", nullptr}});
  expect_due(2, ark_text("2", "b", "ready"));
  device.replace("NoConnection", plist::Boolean::yes());
  device.write({{"SIMIdentity", text("")}, {"SIMStatus", text("locked")}});
  expect_due(1, ark_text("2", "b", "locked"));

  EXPECT_EQ(daemon->end(SIGTERM), 0);
  EXPECT_EQ(telephony_lines(*daemon),
            (Lines{"now listening for Telvo notifications", "We now have SIM status",
                   "Inserting SIM identity into the data ark", "Inserting subscriber identity into the data ark",
                   "Inserting baseband bootloader version into the data ark", "The SIM identity has changed",
                   "The subscriber identity has changed", "_TelvoServerConnectionCopySIMIdentity() error: 0.5",
                   "The SIM status has changed", "Could not connect to Telvo"}));
  daemon.emplace(device);
  subscriber.emplace(device.socket(wire::notification_service));
  expect_due(0, ark_text("2", "b", "locked"));
  device.write({{"Errors", nullptr}, {"NoConnection", nullptr}, {"PhoneNumber", nullptr}});
  expect_due(1, R"({"-InternationalMobileSubscriberIdentity": "b", "-PreviousSIMStatus": "locked"})");
  device.write({{"SubscriberIdentity", text("")}, {"SIMStatus", nullptr}});
  expect_due(1, "(null)");
}

TEST(Sim, KeepsTheLastGoodProfile) {
  const EditedDevice device("phone.plist");
  const DaemonProcess daemon(device);
  RawClient subscriber(device.socket(wire::notification_service));
  const std::string good = testing::read_file(device.profile());
  testing::write_file(device.profile(), good.substr(0, good.size() / 2));
  EXPECT_TRUE(
      eventually([&] { return daemon.standard_error().find("the last good one stays") < std::string::npos; }));
  std::filesystem::remove(device.profile());
  EXPECT_EQ(RawClient(device.socket(wire::public_service)).ask(wire::copy_regulatory_images), no_images);
  testing::write_file(device.profile(), good);
  expect_posts(subscriber, 0);
  device.replace("SIMStatus", text("ready"));
  expect_posts(subscriber, 1);
  device.expect_ark(R"({"-PreviousSIMStatus": "ready"})");
}

TEST(Sim, IsNotFollowedWithoutASubscription) {
  const EditedDevice newer("newer-phone.plist"), tablet("tablet.plist"), silent("phone.plist");
  silent.replace("NoCentre", plist::Boolean::yes());
  const Lines no_centre{"Could not get the Telvo phone center"};
  for (const auto& [device, lines] : {std::pair(&newer, Lines()), {&tablet, no_centre}, {&silent, no_centre}}) {
    const DaemonProcess daemon(*device);
    RawClient subscriber(device->socket(wire::notification_service));
    device->replace("SIMIdentity", text("1"));
    device->replace("SIMStatus", text("new"));
    expect_posts(subscriber, 0);
    EXPECT_EQ(device->ark(), "(null)");
    EXPECT_EQ(telephony_lines(daemon), lines);
  }
}

TEST(Sim, LeavesTheLastStateAfterAStorm) {
  const EditedDevice device("phone.plist");
  const DaemonProcess daemon(device);
  client::Connection admin(wire::admin_service, device.at(""));
  ASSERT_FALSE(client::store_regulatory_images(admin, text("images")).response.failed);
  const std::string images = RawClient(device.socket(wire::public_service)).ask(wire::copy_regulatory_images);
  EXPECT_NE(images, no_images);
  std::atomic<bool> over = false;
  std::atomic<int> faults = 0;
  std::vector<std::thread> clients;
  for (int i = 0; i < 6; ++i) {
    clients.emplace_back([&] {
      for (RawClient client(device.socket(wire::public_service)); !over;)
        faults += client.ask(wire::copy_regulatory_images) != images;
    });
  }
  std::string last;
  for (int i = 1; i <= storm_changes; ++i) {
    last = std::to_string(i);
    device.replace("SIMIdentity", text("overtaken"));
    device.write({{"SIMIdentity", text(last)}, {"SubscriberIdentity", text(last)}, {"SIMStatus", text(last)}});
  }
  device.expect_ark(ark_text(last, last, last));
  over = true;
  for (std::thread& client : clients) client.join();
  EXPECT_EQ(faults, 0);
}

TEST(SimulatedTelephony, DeliversWhatFollowsFromAnEditInOrder) {
  struct HandDrivenLoop final : RunLoop {
    void run() override {}
    void watch(int, std::function<void()> work) override { readable = std::move(work); }
    std::function<void()> readable;
  } loop;
  const EditedDevice device("phone.plist");
  std::string fault;
  const auto profile = Profile::open(device.profile(), fault);
  SimulatedTelephony telephony(*profile);
  static std::string delivered;
  const auto note = [](TelephonyCentre*, void*, const plist::String* name, const plist::Value*,
                       const plist::Dictionary*) { delivered += name->view().substr(5, 4); };
  for (const std::string_view name : {telvo_phone_number_changed, telvo_sim_status_changed, telvo_sim_inserted}) {
    telephony.add_observer(nullptr, note, name);
  }
  const auto expect_delivered = [&](const Entries& edit, const char* names) {
    device.write(edit);
    delivered.clear();
    loop.readable();
    EXPECT_EQ(delivered, names);
  };
  device.write({{"PhoneNumber", text("before the watch")}});
  telephony.set_default_run_loop(loop);
  expect_delivered({}, "");
  expect_delivered({{"PhoneNumber", text("1")}, {"SIMStatus", text("s")}, {"SIMIdentity", text("a")}},
                   "SIMNSIMSPhon");
  expect_delivered({{"PhoneNumber", nullptr}, {"SIMIdentity", text("b")}}, "SIMNPhon");
  expect_delivered({{"SIMIdentity", text("")}, {"SIMStatus", nullptr}}, "SIMS");
  expect_delivered({{"SIMIdentity", plist::Number::create_int32(1)}, {"SubscriberIdentity", text("b")}}, "");
  expect_delivered({{"SIMIdentity", text("b")}, {"SIMStatus", text("t")}}, "SIMNSIMS");
  expect_delivered({{"SIMIdentity", text("c")}, {"NoCentre", plist::Boolean::yes()}}, "");
}

}  // namespace
}  // namespace corvane
