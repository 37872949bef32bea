#include <gtest/gtest.h>

#include <algorithm>
#include <optional>

#include "fuzz/followed_telephony.h"
#include "fuzz/scripted_service.h"
#include "platform/linux/linux_telephony.h"
#include "platform/simulated/simulated_telephony.h"
#include "tests/support/test_platform.h"
#include "tools/plist_edit.h"

namespace corvane {
namespace {

using namespace testing;
using namespace testing::scripted;
using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;
using Kind = ScriptedService::Reply::Kind;

const ScriptedCard card_a{"A", "owner of A", "+1555"};
const ScriptedCard card_b{"B", "owner of B", "+1666"};

const std::string answers_without_a_card =
    R"({"bootloader": "5.02", "firmware": "R1", "identity": "", "status": "not inserted", "subscriber": ""})";
std::string answers_of(const std::string& identity, const std::string& number) {
  return R"({"bootloader": "5.02", "firmware": "R1", "group 1": <1 bytes: 2a>, "group 2": <0 bytes>, )"
         R"("identity": ")" +
         identity + R"(", "number": ")" + number + R"(", "status": "ready", "subscriber": "owner of )" + identity +
         R"("})";
}
const std::string answers_of_a = answers_of("A", "+1555");
const std::string answers_of_b = answers_of("B", "+1666");
/// What stays of card A while its modem is gone or its facts are not all known.
const std::string answers_held_of_a = R"({"number": "+1555", "status": "ready"})";

plist::Ref<plist::String> text(const std::string& utf8) { return plist::String::create(utf8); }

/// A device whose card changes.
struct TestDevice {
  virtual ~TestDevice() = default;
  virtual void put_in(const ScriptedCard& card) = 0;
  virtual void take_out() = 0;
  virtual void change_number(const ScriptedCard& card) = 0;

  /// Waits until these are all answers, and the notifications since the last step.
  void expect(const char* step, const std::string& notifications, const std::string& answers) {
    SCOPED_TRACE(step);
    std::string announced, answered;
    const auto end = steady_clock::now() + seconds(20);
    while (steady_clock::now() < end && (announced != notifications || answered != answers)) {
      std::this_thread::sleep_for(milliseconds(5));
      announced += radio->take_notifications();
      answered = radio->answers();
    }
    EXPECT_EQ(announced, notifications);
    EXPECT_EQ(answered, answers);
  }

  std::optional<FollowedTelephony> radio;
};

/// ModemManager on a bus of its own. Each change of the card makes another modem object, as with a real one.
struct BusDevice final : TestDevice, DeviceProperties {
  BusDevice() {
    setenv("DBUS_SYSTEM_BUS_ADDRESS", bus.address().c_str(), 1);
    start_service();
    telephony.emplace(*this);
    radio.emplace(*telephony);
  }
  ~BusDevice() override { radio.reset(); }

  plist::Ref<plist::Value> copy_answer(const plist::String& name) override {
    return name.view() == "BasebandBootloaderVersion" ? text("5.02") : nullptr;
  }
  void start_service(const ScriptedCard* card = nullptr) {
    service.emplace(bus.address());
    service->change([&](Objects& objects) { put_modem(objects, modem, card); });
    service->own(ScriptedService::modem_manager);
  }
  void replace_modem(const ScriptedCard* card) {
    service->change([&](Objects& objects) { objects.clear(); });
    service->interfaces_removed(modem_path(modem++));
    service->change([&](Objects& objects) { put_modem(objects, modem, card); });
    service->interfaces_added(modem_path(modem));
  }
  void put_in(const ScriptedCard& card) override { replace_modem(&card); }
  void take_out() override { replace_modem(nullptr); }
  void change_number(const ScriptedCard& card) override {
    set(modem_path(modem), modem_interface, "OwnNumbers", std::vector<std::string>{card.number});
  }
  void set(const std::string& object, const char* interface, const char* property, const PropertyValue& value) {
    service->change([&](Objects& objects) { objects[object][interface][property] = value; });
    service->properties_changed(object, interface, property);
  }
  void follow_card_a() {
    expect("the first reading", "status ", answers_without_a_card);
    put_in(card_a);
    expect("card A is put in", "inserted status number ", answers_of_a);
  }

  PrivateBus bus;
  std::optional<ScriptedService> service;
  std::optional<LinuxTelephony> telephony;
  int modem = 0;
};

struct ProfileDevice final : TestDevice {
  ProfileDevice() {
    write_file(path, "<plist><dict/></plist>");
    write({});
    std::string fault;
    profile = Profile::open(path, fault);
    telephony.emplace(*profile);
    radio.emplace(*telephony);
    radio->loop_delay();
  }
  ~ProfileDevice() override {
    radio.reset();
    std::filesystem::remove_all(folder);
  }

  void write(const ScriptedCard& card) {
    auto entries = plist::MutableDictionary::create();
    const auto add = [&](const char* key, const plist::Ref<plist::Value>& value) {
      entries->set(text(key), value);
    };
    const bool has_card = !card.identity.empty();
    add("BootloaderVersion", text("5.02"));
    add("FirmwareVersion", text("R1"));
    add("SIMIdentity", text(card.identity));
    add("SubscriberIdentity", text(card.subscriber));
    add("SIMStatus", text(!has_card ? "not inserted" : card.is_locked ? "pin required" : "ready"));
    if (has_card && !card.is_locked) {
      add("PhoneNumber", text(card.number));
      add("GroupIdentifier1", plist::Data::create("\x2a"));
      add("GroupIdentifier2", plist::Data::create(""));
    }
    tools::set_entry(path, "Telephony", entries);
  }
  void put_in(const ScriptedCard& card) override { write(card); }
  void take_out() override { write({}); }
  void change_number(const ScriptedCard& card) override { write(card); }

  const std::string folder = make_temporary_folder();
  const std::string path = folder + "/profile.plist";
  std::unique_ptr<Profile> profile;
  std::optional<SimulatedTelephony> telephony;
};

// ---- the same on a bus and from a profile -------------------------------------------------------------

void follow_cards(TestDevice& device) {
  ScriptedCard locked_a = card_a;
  locked_a.is_locked = true;
  ScriptedCard renumbered_a = card_a;
  renumbered_a.number = "+1777";

  device.put_in(card_a);
  device.expect("put in", "inserted status number ", answers_of_a);
  device.put_in(locked_a);
  device.expect("locked", "status number ",
                R"({"bootloader": "5.02", "firmware": "R1", "identity": "A", "status": "pin required", )"
                R"("subscriber": "owner of A"})");
  device.put_in(card_a);
  device.expect("unlocked", "status number ", answers_of_a);
  device.change_number(renumbered_a);
  device.expect("another number", "number ", answers_of("A", "+1777"));
  device.put_in(card_b);
  device.expect("another card", "inserted number ", answers_of_b);
  device.take_out();
  device.expect("taken out", "status number ", answers_without_a_card);
}

TEST(TelephonyContract, HoldsForModemManager) {
  BusDevice device;
  device.expect("the first reading", "status ", answers_without_a_card);
  follow_cards(device);
}

TEST(TelephonyContract, HoldsForAProfile) {
  ProfileDevice device;
  follow_cards(device);
}

// ---- services that fail -------------------------------------------------------------------------------

TEST(BusTelephony, TakesWhatIsOfTheWrongTypeOrTooLongForUnknown) {
  BusDevice device;
  device.follow_card_a();
  const std::string sim = sim_path(device.modem), modem = modem_path(device.modem);
  const auto expect_unknown = [&](const std::string& object, const char* interface, const char* property,
                                  const PropertyValue& bad) {
    SCOPED_TRACE(property);
    PropertyValue good;
    device.service->change([&](Objects& objects) { good = objects[object][interface][property]; });
    device.set(object, interface, property, bad);
    device.expect("bad", "", answers_held_of_a);
    device.set(object, interface, property, good);
    device.expect("good again", "status ", answers_of_a);
  };
  expect_unknown(sim, sim_interface, "SimIdentifier", uint32_t{7});
  expect_unknown(sim, sim_interface, "SimIdentifier", std::string(1025, '8'));
  expect_unknown(modem, modem_interface, "State", 8.0);
  expect_unknown(modem, modem_interface, "Sim", std::string("no path at all"));

  device.set(sim, sim_interface, "Gid1", ByteString{std::string(256, 'g')});
  device.set(sim, sim_interface, "Gid2", std::string("no bytes"));
  device.set(modem, modem_interface, "OwnNumbers", std::string("+1555"));
  device.expect("groups and number", "number ",
                R"({"bootloader": "5.02", "firmware": "R1", "identity": "A", "status": "ready", )"
                R"("subscriber": "owner of A"})");
}

TEST(BusTelephony, AsksAgainWhereRepliesAreLostLateOrErrors) {
  BusDevice device;
  device.expect("the first reading", "status ", answers_without_a_card);
  device.service->reply_to("GetAll", {Kind::normal, milliseconds(300)});
  device.put_in(card_b);
  std::this_thread::sleep_for(milliseconds(200));
  device.put_in(card_a);
  device.expect("card A, which overtook the reading of B", "inserted status number ", answers_of_a);
  device.service->reply_to("GetManagedObjects", {Kind::malformed});
  device.service->reply_to("GetAll", {Kind::malformed});
  device.put_in(card_b);
  device.expect("card B after two readings that failed", "inserted number ", answers_of_b);
  device.service->reply_to("GetManagedObjects", {Kind::never});
  device.service->reply_to("GetAll", {Kind::normal, bus_call_timeout + milliseconds(500)});
  device.put_in(card_a);
  std::this_thread::sleep_for(bus_call_timeout + bus_retry + milliseconds(500));
  device.service->change([&](Objects& objects) { put_modem(objects, device.modem, &card_b); });
  device.expect("nothing was read for long", "status ", "{}");
  device.expect("card B again, although the late reply is about A", "status number ", answers_of_b);
}

TEST(BusTelephony, FindsTheServiceAndTheBusAgain) {
  BusDevice device;
  device.follow_card_a();
  device.service.reset();
  device.expect("the service is gone", "", answers_held_of_a);
  device.expect("for long", "status ", "{}");
  device.start_service(&card_a);
  device.expect("it is back", "status number ", answers_of_a);
  ScriptedService replacement(device.bus.address());
  replacement.change([&](Objects& objects) { put_modem(objects, 7, &card_b); });
  replacement.own(ScriptedService::modem_manager);
  device.expect("another one takes its name", "inserted number ", answers_of_b);
  device.bus.stop();
  device.expect("no bus", "", R"({"number": "+1666", "status": "ready"})");
  device.bus.start();
  device.start_service(&card_a);
  device.expect("a bus again", "inserted number ", answers_of_a);
}

TEST(BusTelephony, BelievesNobodyButTheOwnerOfTheName) {
  BusDevice device;
  device.follow_card_a();
  ScriptedService stranger(device.bus.address());
  stranger.send_only_to(device.service->caller());
  stranger.change([&](Objects& objects) { put_modem(objects, device.modem, &card_b); });
  const int calls = device.service->calls();
  stranger.interfaces_removed(modem_path(device.modem));
  stranger.interfaces_added(modem_path(device.modem));
  stranger.properties_changed(modem_path(device.modem), modem_interface, "Sim");
  stranger.properties_changed(sim_path(device.modem), sim_interface, "Imsi");
  stranger.name_owner_changed(ScriptedService::modem_manager);
  device.change_number(card_b);
  device.expect("the number is the service's", "number ", answers_of("A", "+1666"));
  EXPECT_EQ(device.service->calls(), calls + 2) << "one list and one card were read";
}

TEST(BusTelephony, StaysResponsiveUnderManySignals) {
  BusDevice device;
  device.follow_card_a();
  const int calls = device.service->calls();
  const auto start = steady_clock::now();
  milliseconds longest{0};
  for (int signals = 0; signals < 3000; ++signals) {
    device.service->properties_changed(sim_path(device.modem), sim_interface, "Imsi");
    if (signals % 10 == 0) longest = std::max(longest, device.radio->loop_delay());
  }
  EXPECT_LT(longest, milliseconds(250));
  const auto readings = (steady_clock::now() - start) / milliseconds(50) + 2;
  EXPECT_LE(device.service->calls(), calls + 2 * readings) << "not a reading for each signal";
  device.put_in(card_b);
  device.expect("and learns of the next card", "inserted number ", answers_of_b);
}

// ---- oFono --------------------------------------------------------------------------------------------

TEST(BusTelephony, UsesOfonoWhereModemManagerHasNoModem) {
  BusDevice device;
  device.follow_card_a();
  ScriptedService ofono(device.bus.address());
  ofono.change([&](Objects& objects) { put_ofono_modem(objects, 0, nullptr); });
  ofono.own(ScriptedService::ofono);
  device.service->change([&](Objects& objects) { objects.clear(); });
  device.service->interfaces_removed(modem_path(device.modem));
  device.expect("ModemManager's modem may come back", "", answers_held_of_a);
  const std::string without = R"({"bootloader": "5.02", "firmware": "R2", "identity": "", )"
                              R"("status": "not inserted", "subscriber": ""})";
  device.expect("it does not, and oFono has no card", "status number ", without);

  const auto tell = [&](const char* property, const PropertyValue& value) {
    ofono.change([&](Objects& objects) { objects["/ofono0"][ofono_sim_interface][property] = value; });
    ofono.property_changed("/ofono0", ofono_sim_interface, property);
    std::this_thread::sleep_for(milliseconds(150));  // it is read
  };
  tell("Present", true);
  tell("PinRequired", std::string("none"));
  tell("CardIdentifier", std::string("B"));
  device.expect("card B, not yet read whole", "", R"({"status": "not inserted"})");
  tell("SubscriberIdentity", std::string("owner of B"));
  device.expect("its subscriber", "inserted status ",
                R"({"bootloader": "5.02", "firmware": "R2", "identity": "B", "status": "ready", )"
                R"("subscriber": "owner of B"})");
  device.put_in(card_a);
  device.expect("ModemManager has a modem again", "inserted number ", answers_of_a);
}

}  // namespace
}  // namespace corvane
