#include "device/telephony.h"

#include <gtest/gtest.h>

#include <tuple>

#include "device/device_type.h"
#include "plist/describe.h"
#include "state/values.h"
#include "tests/support/test_platform.h"

namespace corvane {
namespace {

using testing::TestPlatform;
using Lines = std::vector<std::string>;
using Value = plist::Ref<plist::Value>;
using Query = TelvoServerConnection::Query;

const std::string changed_post = "com.norvane.mobile.keelhold.phone_number_changed";
const std::string in_old_lookup = "lookup_baseband_info_old: ";

plist::Ref<plist::String> text(std::string_view utf8) { return plist::String::create(utf8); }
Value number(int32_t value) { return plist::Number::create_int32(value); }

/// A radio that says what a test tells it to. A query that fails fills its slot all the same.
struct Radio final : Telephony, TelephonyCentre {
  struct Connection final : TelvoServerConnection {
    TelvoStatus copy(Query query, Value& slot) override {
      slot = answers[query];
      return results[query];
    }
    std::map<Query, Value> answers;
    std::map<Query, TelvoStatus> results;
  };

  TelephonyCentre* default_centre() override { return this; }
  std::unique_ptr<TelvoServerConnection> connect(void (*callback)()) override {
    server_callback = callback;
    return connects ? std::make_unique<Connection>(connection) : nullptr;
  }
  TelvoRadioStatus copy_radio_status() override { return record; }
  Value sim_status() override { return status; }
  Value copy_my_phone_number() override { return phone_number; }
  void set_default_run_loop(RunLoop&) override {}
  void add_observer(void* observer, Callback callback, std::string_view name) override {
    observers.emplace_back(observer, callback, std::string(name));
  }

  bool connects = true;
  Connection connection;
  TelvoRadioStatus record;
  Value status, phone_number;
  std::vector<std::tuple<void*, Callback, std::string>> observers;
  void (*server_callback)() = nullptr;
};

/// A device with a radio and an ark. A process keeps the baseband class that it saw first.
struct Phone {
  explicit Phone(char baseband_class = 1) {
    platform.registry["HWTree:/baseband/class"] = plist::Data::create(std::string{baseband_class, 0, 0, 0});
    platform.telephony_service = &radio;
    baseband_class_above_one();
    platform.take_lines();
  }
  bool is_transient(const char* key) { return data_ark_has_attribute(ark, nullptr, text(key).get(), 1); }
  std::string stored() { return plist::describe(data_ark_copy(ark, nullptr, nullptr).get()); }

  TestPlatform& platform = TestPlatform::fresh();
  Radio radio;
  const DataArk owned_ark = data_ark_load();
  data_ark* const ark = owned_ark.get();
};

/// Each step is what the radio says ('_' nothing, '0' an empty text, '#' no text, '!' a failure) and what comes of
/// it: '+' an insertion, '~' a change, '-' a removal, '=' nothing. `lines` are those of the three and of the
/// failure. Without a query it is the SIM status, which is followed without a connection too.
void expect_followed(const char* key, const Query* query, const Lines& steps, const Lines& lines) {
  Phone phone;
  phone.radio.connects = query != nullptr;
  Value kept;
  for (const std::string& step : steps) {
    const bool fails = query == nullptr || step[0] == '!', changes = step[1] != '=';
    const Value word = text(step[0] == '0' ? "" : step.substr(0, 1));
    const Value said = step[0] == '_' ? nullptr : step[0] == '#' ? number(1) : word;
    (query == nullptr ? phone.radio.status : phone.radio.connection.answers[*query]) = said;
    // An error of 0 is success in every domain.
    if (query != nullptr) phone.radio.connection.results[*query] = {1, fails ? -5 : 0};
    Lines logged;
    if (changes) logged.push_back(in_old_lookup + lines[std::string("+~-").find(step[1])]);
    if (changes && step[1] != '-') logged.push_back("data_ark_set: dirtied by changing -" + std::string(key));
    if (fails) logged.push_back(in_old_lookup + lines[3]);
    if (changes) kept = step[1] == '-' ? nullptr : said;
    EXPECT_EQ(lookup_baseband_info(phone.ark), changes) << key << step;
    EXPECT_EQ(phone.platform.take_texts(), logged) << key << step;
    EXPECT_TRUE(plist::equal(data_ark_copy(phone.ark, nullptr, text(key).get()).get(), kept.get())) << key << step;
  }
  EXPECT_EQ(phone.platform.posted, Lines(steps.size(), changed_post));
}

TEST(OldLookup, FollowsTheSimAndKeepsWhatItCannotRead) {
  expect_followed("PreviousSIMStatus", nullptr, {"_=", "#=", "a+", "a=", "b~", "#=", "_-", "_="},
                  {"We now have SIM status", "The SIM status has changed", "SIM status has gone away?",
                   "Could not connect to Telvo"});
  const Query sim = Query::sim_identity, subscriber = Query::mobile_subscriber_identity;
  const Lines steps{"_=", "#=", "!=", "0=", "a+", "a=", "_=", "#=", "!=", "b~", "0-", "0=", "a+"};
  const auto lines = [](const std::string& what, const std::string& name) {
    return Lines{"Inserting " + what + " into the data ark", "The " + what + " has changed",
                 "Removing " + what + " from the data ark",
                 "_TelvoServerConnectionCopy" + name + "() error: 1.-5"};
  };
  expect_followed("IntegratedCircuitCardIdentity", &sim, steps, lines("SIM identity", "SIMIdentity"));
  expect_followed("InternationalMobileSubscriberIdentity", &subscriber, steps,
                  lines("subscriber identity", "MobileSubscriberIdentity"));
}

TEST(OldLookup, AsksInOrderAndGoesOnAfterEachFailure) {
  Phone phone;
  Lines lines;
  for (const std::string name :
       {"SIMIdentity", "MobileSubscriberIdentity", "FirmwareVersion", "BootloaderVersion", "Gid1", "Gid2"}) {
    const auto query = static_cast<Query>(lines.size());
    phone.radio.connection.answers[query] = text("not to be used");
    phone.radio.connection.results[query] = {-1, static_cast<int32_t>(query) + 1};
    lines.push_back(in_old_lookup + "_TelvoServerConnectionCopy" + name + "() error: -1.");
    lines.back() += std::to_string(lines.size());
  }
  EXPECT_FALSE(lookup_baseband_info(phone.ark));
  EXPECT_EQ(phone.platform.take_texts(), lines);
  EXPECT_EQ(phone.stored(), "(null)");
}

TEST(OldLookup, KeepsGroupIdentifiersAndBootloaderVersionForThisRunOnly) {
  Phone phone;
  auto& answers = phone.radio.connection.answers;
  answers[Query::firmware_version] = text("4.10");
  const auto look_up = [&](const Value& bootloader, const Value& group_1, const Value& group_2) {
    answers[Query::bootloader_version] = bootloader;
    answers[Query::group_identifier_1] = group_1;
    answers[Query::group_identifier_2] = group_2;
    EXPECT_FALSE(lookup_baseband_info(phone.ark) || data_ark_dirty_count(phone.ark) != 0);
    return phone.platform.take_texts();
  };
  EXPECT_EQ(look_up(number(5), nullptr, nullptr), Lines{});
  EXPECT_EQ(look_up(text(""), nullptr, text("b")), Lines{});
  EXPECT_EQ(phone.stored(), R"({"SIMGID2": "b"})");
  EXPECT_EQ(look_up(text("5.02"), text("a"), number(7)),
            Lines{in_old_lookup + "Inserting baseband bootloader version into the data ark"});
  EXPECT_EQ(look_up(text("6.00"), number(8), nullptr), Lines{});
  EXPECT_EQ(phone.stored(), R"({"BasebandBootloaderVersion": "5.02", "SIMGID1": 8, "SIMGID2": 7})");
  for (const char* key : {"BasebandBootloaderVersion", "SIMGID1", "SIMGID2"}) EXPECT_TRUE(phone.is_transient(key));
}

TEST(Notifications, AreAnsweredByALookupAndTheHookAfterAChange) {
  Phone phone;
  static std::vector<data_ark*> hooked;
  set_radio_change_hook([](data_ark* ark) { hooked.push_back(data_ark_dirty_count(ark) != 0 ? ark : nullptr); });
  registerForTelvoCallNotifications(phone.ark);
  const std::string_view names[] = {telvo_sim_inserted, telvo_sim_status_changed, telvo_phone_number_changed};
  ASSERT_EQ(phone.radio.observers.size(), std::size(names));
  for (size_t i = 0; i < 6; ++i) {
    const auto& [observer, callback, name] = phone.radio.observers[i % 3];
    EXPECT_EQ(name, names[i % 3]);
    // The second time round nothing has changed.
    if (i < 3) phone.radio.connection.answers[Query::sim_identity] = text(name);
    phone.platform.posted.clear();
    callback(&phone.radio, observer, text(name).get(), nullptr, nullptr);
    EXPECT_EQ(phone.platform.posted, Lines(i % 3 == 0 ? 2 : 1, changed_post));
    EXPECT_EQ(hooked, std::vector(i < 3 ? i + 1 : 3, phone.ark));
  }
}

TEST(BasebandStatus, IsACopyOfTheFirmwareSecurityInformation) {
  Phone phone;
  const auto information = create_dict();
  information->set("Fused", plist::Boolean::yes());
  const auto expect_status = [&](const Value& answer, int32_t error, const char* status, const char* line) {
    phone.radio.connection.answers[Query::firmware_security_info] = answer;
    phone.radio.connection.results[Query::firmware_security_info] = {2, error};
    const auto copy = copyBasebandStatus();
    EXPECT_EQ(plist::describe(copy.get()), status);
    EXPECT_NE(copy.get(), information.get());
    EXPECT_EQ(phone.platform.take_texts(), line == nullptr ? Lines{} : Lines{line});
  };
  expect_status(information, 0, R"({"Fused": true})",
                "__copyBasebandStatus_block_invoke: got Fused = true from telvo");
  expect_status(information, 9, "{}",
                "copyBasebandStatus: _TelvoServerConnectionCopyFirmwareSecurityInfo() error: 2.9");
  expect_status(nullptr, 0, "{}", "copyBasebandStatus: Telvo returned NULL FirmwareSecurityInfo");
  expect_status(text("no dictionary"), 0, "{}", nullptr);
  phone.radio.connects = false;
  expect_status(information, 0, "(null)", "copyBasebandStatus: Can't connect to Telvo");
  phone.radio.server_callback();
  EXPECT_EQ(phone.platform.take_texts(), Lines{"_telvoserver_callback: _telvoserver_callback?"});
  phone.platform.properties["BasebandStatus"] = information;
  EXPECT_EQ(copy_baseband_status_answer().get(), information.get());
}

TEST(PhoneNumber, IsANonEmptyStringOrNull) {
  Phone phone;
  const std::string longest(1023, '5'), head = "copy_phonenumber: ";
  const std::string locale = "copy_locale: Could not lookup locale preference",
                    returned = head + "TelvoSettingCopyMyPhoneNumber() returned ";
  const std::tuple<Value, bool, Lines> cases[] = {
      {text("+1555"), true, {locale}},
      {text(longest), true, {locale}},
      {text(longest + "5"), true, {locale, head + "Could not convert phone number to string"}},
      {text(""), false, {locale, returned + "an empty phone number - returning NULL"}},
      {number(1555), false, {returned + "non-string: 1555, but we're returning NULL anyway"}},
      {nullptr, false, {returned + "NULL"}}};
  for (const auto& [value, is_number, lines] : cases) {
    phone.radio.phone_number = value;
    EXPECT_EQ(copy_phonenumber().get(), is_number ? value.get() : nullptr);
    EXPECT_EQ(phone.platform.take_texts(), lines);
  }
}

// In a process of its own, for the class.
void follow_a_newer_phone() {
  Phone phone(2);
  registerForTelvoCallNotifications(phone.ark);
  EXPECT_TRUE(phone.radio.observers.empty() && phone.platform.take_lines().empty());
  const auto properties = create_dict();
  for (const char* key : {"Signal", "MobileEquipmentIdentifier", "Operator", "IntegratedCircuitCardIdentity",
                          "InternationalMobileEquipmentIdentity"}) {
    properties->set(key, text("x"));
  }
  static int hooked = 0;
  set_radio_change_hook([](data_ark*) { ++hooked; });
  const auto expect_record = [&](const Value& readiness, const Lines& lines, const std::string& stored) {
    phone.radio.record = {readiness, properties};
    sim_notification_callback(&phone.radio, phone.ark, text(telvo_sim_inserted).get(), nullptr, nullptr);
    EXPECT_EQ(phone.platform.take_texts(), lines);
    EXPECT_EQ(phone.stored(), stored);
  };
  const std::string got = "__lookup_baseband_info_new_block_invoke: got ",
                    radio = "lookup_baseband_info_new: radio ";
  expect_record(nullptr, {radio + "not responding"}, "(null)");
  expect_record(text("not ready"), {radio + "not ready: not ready"}, "(null)");
  expect_record(text("ready"), {got + "Signal = x from telvo", got + "Operator = x from telvo"},
                R"({"Operator": "x", "Signal": "x"})");
  EXPECT_TRUE(phone.is_transient("Signal") && phone.is_transient("Operator") && hooked == 3);
  EXPECT_EQ(phone.platform.posted, Lines(3, changed_post));
  phone.platform.prepare_to_die();
  std::_Exit(::testing::Test::HasFailure());
}

TEST(NewerPhoneDeathTest, SubscribesToNothingAndWithholdsItsIdentities) {
  EXPECT_EXIT(follow_a_newer_phone(), ::testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace corvane
