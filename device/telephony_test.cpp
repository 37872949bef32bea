#include "device/telephony.h"

#include <gtest/gtest.h>

#include <cstdio>
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
    explicit Connection(Radio& its_radio) : radio(its_radio) {}
    TelvoStatus copy(Query query, Value& slot) override {
      slot = radio.answers[query];
      return radio.results[query];
    }
    Radio& radio;
  };

  TelephonyCentre* default_centre() override { return has_centre ? this : nullptr; }
  std::unique_ptr<TelvoServerConnection> connect(void (*callback)()) override {
    server_callback = callback;
    return connects ? std::make_unique<Connection>(*this) : nullptr;
  }
  TelvoRadioStatus copy_radio_status() override { return record; }
  Value sim_status() override { return status; }
  Value copy_my_phone_number() override { return phone_number; }
  void set_default_run_loop(RunLoop&) override {}
  void add_observer(void* observer, Callback callback, std::string_view name) override {
    observers.emplace_back(observer, callback, std::string(name));
  }

  bool has_centre = true, connects = true;
  std::map<Query, Value> answers;
  std::map<Query, TelvoStatus> results;
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
  void subscribe(bool has_centre) {
    radio.has_centre = has_centre;
    registerForTelvoCallNotifications(ark.get());
  }
  bool is_transient(const char* key) { return data_ark_has_attribute(ark.get(), nullptr, text(key).get(), 1); }
  std::string stored() { return plist::describe(data_ark_copy(ark.get(), nullptr, nullptr).get()); }

  TestPlatform& platform = TestPlatform::fresh();
  Radio radio;
  DataArk ark = data_ark_load();
};

Value value_of(char letter) {
  if (letter == '#') return number(1);
  if (letter == '0') return text("");
  return letter == '_' ? nullptr : text({&letter, 1});
}

/// A case is what is stored, what the radio says ('_' nothing, '0' an empty text, '#' no text, '!' a failure) and
/// what comes of it: '+' an insertion, '~' a change, '-' a removal, '=' nothing. `lines` are those of the three
/// and of the failure. Without a query it is the SIM status, which is followed without a connection too.
void expect_followed(const Lines& cases, const char* key, const Query* query, const Lines& lines) {
  for (const std::string& each : cases) {
    Phone phone;
    const Value stored = value_of(each[0]), said = value_of(each[1]);
    const bool fails = query == nullptr || each[1] == '!', changes = each[2] != '=';
    if (stored) data_ark_set(phone.ark.get(), nullptr, text(key).get(), stored.get());
    data_ark_store(phone.ark.get());
    phone.platform.take_lines();
    phone.radio.connects = query != nullptr;
    (query == nullptr ? phone.radio.status : phone.radio.answers[*query]) = said;
    // An error of 0 is success in every domain.
    if (query != nullptr) phone.radio.results[*query] = {1, fails ? -5 : 0};

    Lines logged;
    if (changes) logged.push_back(in_old_lookup + lines[std::string("+~-").find(each[2])]);
    if (changes && each[2] != '-') logged.push_back("data_ark_set: dirtied by changing -" + std::string(key));
    if (fails) logged.push_back(in_old_lookup + lines[3]);
    EXPECT_EQ(lookup_baseband_info(phone.ark.get()), changes) << key << each;
    EXPECT_EQ(phone.platform.take_texts(), logged) << key << each;
    EXPECT_EQ(phone.platform.posted, Lines{changed_post});
    EXPECT_EQ(data_ark_dirty_count(phone.ark.get()), changes ? 1u : 0u) << key << each;
    const Value kept = each[2] == '-' ? nullptr : changes ? said : stored;
    EXPECT_TRUE(plist::equal(data_ark_copy(phone.ark.get(), nullptr, text(key).get()).get(), kept.get())) << each;
  }
}

TEST(OldLookup, FollowsTheSimAndKeepsWhatItCannotRead) {
  const Query sim = Query::sim_identity, subscriber = Query::mobile_subscriber_identity;
  expect_followed({"__=", "_a+", "aa=", "ab~", "#a~", "a_-", "a#=", "_#="}, "PreviousSIMStatus", nullptr,
                  {"We now have SIM status", "The SIM status has changed", "SIM status has gone away?",
                   "Could not connect to Telvo"});
  const Lines cases{"__=", "_a+", "aa=", "ab~", "#a~", "a0-", "_0=", "a_=", "a#=", "_#=", "a!=", "_!="};
  expect_followed(
      cases, "IntegratedCircuitCardIdentity", &sim,
      {"Inserting SIM identity into the data ark", "The SIM identity has changed",
       "Removing SIM identity from the data ark", "_TelvoServerConnectionCopySIMIdentity() error: 1.-5"});
  expect_followed(cases, "InternationalMobileSubscriberIdentity", &subscriber,
                  {"Inserting subscriber identity into the data ark", "The subscriber identity has changed",
                   "Removing subscriber identity from the data ark",
                   "_TelvoServerConnectionCopyMobileSubscriberIdentity() error: 1.-5"});
}

TEST(OldLookup, AsksInOrderAndGoesOnAfterEachFailure) {
  Phone phone;
  Lines lines;
  for (const std::string name :
       {"SIMIdentity", "MobileSubscriberIdentity", "FirmwareVersion", "BootloaderVersion", "Gid1", "Gid2"}) {
    const auto number_of_query = static_cast<int32_t>(lines.size());
    phone.radio.answers[static_cast<Query>(number_of_query)] = text("not to be used");
    phone.radio.results[static_cast<Query>(number_of_query)] = {number_of_query, 7};
    lines.push_back(in_old_lookup + "_TelvoServerConnectionCopy" + name +
                    "() error: " + std::to_string(number_of_query) + ".7");
  }
  EXPECT_FALSE(lookup_baseband_info(phone.ark.get()));
  EXPECT_EQ(phone.platform.take_texts(), lines);
  EXPECT_EQ(phone.stored(), "(null)");
}

TEST(OldLookup, KeepsGroupIdentifiersAndBootloaderVersionForThisRunOnly) {
  Phone phone;
  const auto look_up = [&phone](const Value& bootloader, const Value& group_1, const Value& group_2) {
    phone.radio.answers[Query::firmware_version] = text("4.10");
    phone.radio.answers[Query::bootloader_version] = bootloader;
    phone.radio.answers[Query::group_identifier_1] = group_1;
    phone.radio.answers[Query::group_identifier_2] = group_2;
    EXPECT_FALSE(lookup_baseband_info(phone.ark.get()) || data_ark_dirty_count(phone.ark.get()) != 0);
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
  phone.subscribe(false);
  phone.subscribe(true);
  const std::string head = "registerForTelvoCallNotifications: ";
  EXPECT_EQ(phone.platform.take_texts(), (Lines{head + "Could not get the Telvo phone center",
                                                head + "now listening for Telvo notifications"}));
  const std::string_view names[] = {telvo_sim_inserted, telvo_sim_status_changed, telvo_phone_number_changed};
  ASSERT_EQ(phone.radio.observers.size(), std::size(names));
  for (const bool changes : {true, false}) {
    for (size_t i = 0; i < std::size(names); ++i) {
      const auto& [observer, callback, name] = phone.radio.observers[i];
      EXPECT_EQ(name, names[i]);
      if (changes) phone.radio.answers[Query::sim_identity] = text(name);
      phone.platform.posted.clear();
      callback(&phone.radio, observer, text(name).get(), nullptr, nullptr);
      EXPECT_EQ(phone.platform.posted, Lines(i == 0 ? 2 : 1, changed_post));
      EXPECT_EQ(hooked, std::vector(changes ? i + 1 : 3, phone.ark.get()));
    }
  }
}

TEST(BasebandStatus, IsACopyOfTheFirmwareSecurityInformation) {
  Phone phone;
  const auto information = create_dict();
  information->set("Fused", plist::Boolean::yes());
  information->set("ChipID", number(104));
  const std::string got = "__copyBasebandStatus_block_invoke: got ", head = "copyBasebandStatus: ";
  const auto expect_status = [&](const Value& answer, int32_t error, const char* status, const Lines& lines) {
    phone.radio.answers[Query::firmware_security_info] = answer;
    phone.radio.results[Query::firmware_security_info] = {2, error};
    const auto copy = copyBasebandStatus();
    EXPECT_EQ(plist::describe(copy.get()), status);
    EXPECT_NE(copy.get(), information.get());
    EXPECT_EQ(phone.platform.take_texts(), lines);
  };
  expect_status(information, 0, R"({"ChipID": 104, "Fused": true})",
                {got + "Fused = true from telvo", got + "ChipID = 104 from telvo"});
  expect_status(information, 9, "{}", {head + "_TelvoServerConnectionCopyFirmwareSecurityInfo() error: 2.9"});
  expect_status(nullptr, 0, "{}", {head + "Telvo returned NULL FirmwareSecurityInfo"});
  expect_status(text("no dictionary"), 0, "{}", {});
  phone.radio.connects = false;
  expect_status(information, 0, "(null)", {head + "Can't connect to Telvo"});
  phone.radio.server_callback();
  EXPECT_EQ(phone.platform.take_texts(), Lines{"_telvoserver_callback: _telvoserver_callback?"});

  EXPECT_FALSE(copy_baseband_status_answer());
  phone.platform.properties["BasebandStatus"] = information;
  EXPECT_EQ(copy_baseband_status_answer().get(), information.get());
}

TEST(PhoneNumber, IsANonEmptyStringOrNull) {
  Phone phone;
  const std::string longest(1023, '5'), head = "copy_phonenumber: ";
  const std::string locale = "copy_locale: Could not lookup locale preference";
  const std::string returned = head + "TelvoSettingCopyMyPhoneNumber() returned ";
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

// In a process of its own, for the class; what it does and logs is on its standard error.
void follow_a_newer_phone() {
  Phone phone(2);
  const auto report = [&phone](bool answer) {
    std::fprintf(stderr, "%d, %zu posts, %s\n", answer, phone.platform.posted.size(), phone.stored().c_str());
  };
  phone.platform.prepare_to_die();
  phone.subscribe(false);
  phone.subscribe(true);
  report(!phone.radio.observers.empty());
  phone.radio.status = text("ready");
  const auto properties = create_dict();
  for (const char* key : {"Signal", "MobileEquipmentIdentifier", "Operator", "IntegratedCircuitCardIdentity",
                          "InternationalMobileEquipmentIdentity"}) {
    properties->set(key, text("x"));
  }
  for (const Value& readiness : {Value(), Value(text("not ready")), Value(text("ready"))}) {
    phone.radio.record = {readiness, properties};
    report(lookup_baseband_info(phone.ark.get()));
  }
  set_radio_change_hook([](data_ark* ark) { std::fprintf(stderr, "dirty: %u\n", data_ark_dirty_count(ark)); });
  sim_notification_callback(&phone.radio, phone.ark.get(), text(telvo_sim_inserted).get(), nullptr, nullptr);
  report(phone.is_transient("Signal") && phone.is_transient("Operator") && !phone.radio.server_callback);
  std::_Exit(0);
}

TEST(NewerPhoneDeathTest, SubscribesToNothingAndWithholdsItsIdentities) {
  const std::string got = "7 __lookup_baseband_info_new_block_invoke: got ", x = " = x from telvo\n";
  const std::string radio = "7 lookup_baseband_info_new: radio not ", all = R"({"Operator": "x", "Signal": "x"})";
  EXPECT_EXIT(
      follow_a_newer_phone(), ::testing::ExitedWithCode(0),
      ::testing::Eq("7 registerForTelvoCallNotifications: Could not get the Telvo phone center\n"
                    "0, 0 posts, (null)\n" +
                    radio + "responding\n1, 1 posts, (null)\n" + radio + "ready: not ready\n1, 2 posts, (null)\n" +
                    got + "Signal" + x + got + "Operator" + x + "1, 3 posts, " + all + "\n" + got + "Signal" + x +
                    got + "Operator" + x + "dirty: 0\n1, 4 posts, " + all + "\n"));
}

}  // namespace
}  // namespace corvane
