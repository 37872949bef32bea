#include "device/telephony.h"

#include <gtest/gtest.h>

#include <tuple>

#include "device/device_type.h"
#include "plist/describe.h"
#include "state/values.h"
#include "tests/support/test_platform.h"

namespace corvane {
namespace {

using Lines = std::vector<std::string>;
using Value = plist::Ref<plist::Value>;
using Query = TelvoServerConnection::Query;

const std::string changed_post = "com.norvane.mobile.keelhold.phone_number_changed";

plist::Ref<plist::String> text(std::string_view utf8) { return plist::String::create(utf8); }
Value number(int32_t value) { return plist::Number::create_int32(value); }

/// A radio that says what a test tells it to.
struct Radio final : Telephony {
  struct Connection final : TelvoServerConnection {
    // A query that fails fills its slot all the same; an error of 0 is success in every domain.
    TelvoStatus copy(Query query, Value& slot) override {
      slot = answers[query];
      return {1, fails ? static_cast<int32_t>(query) + 1 : 0};
    }
    std::map<Query, Value> answers;
    bool fails = false;
  };

  TelephonyCentre* default_centre() override { return nullptr; }
  std::unique_ptr<TelvoServerConnection> connect(void (*)()) override {
    return std::make_unique<Connection>(connection);
  }
  TelvoRadioStatus copy_radio_status() override { return record; }
  Value sim_status() override { return status; }
  Value copy_my_phone_number() override { return phone_number; }

  Connection connection;
  TelvoRadioStatus record;
  Value status, phone_number;
};

/// A device with a radio and an ark. A process keeps the baseband class that it saw first.
struct Phone {
  explicit Phone(char baseband_class = 1) {
    platform.registry["HWTree:/baseband/class"] = plist::Data::create(std::string{baseband_class, 0, 0, 0});
    platform.telephony_service = &radio;
    baseband_class_above_one();
    platform.take_lines();
  }
  testing::TestPlatform& platform = testing::TestPlatform::fresh();
  Radio radio;
  const DataArk ark = data_ark_load();
};

TEST(OldLookup, FollowsTheSimAndKeepsWhatItCannotRead) {
  Phone phone;
  // What the radio says to all questions but one, whether that is a change, and what is kept of each answer.
  const std::tuple<Value, bool, std::string> steps[] = {
      {nullptr, false, "-----2"},   {number(1), false, "----12"}, {text("a"), true, "aaaaa2"},
      {text("a"), false, "aaaaa2"}, {number(1), false, "aaaa12"}, {text("b"), true, "bbbab2"},
      {nullptr, true, "bb-ab2"},    {text(""), true, "--a2"},     {text(""), false, "--a2"}};
  phone.radio.connection.answers[Query::group_identifier_2] = number(2);
  for (const auto& [said, changes, expected] : steps) {
    phone.radio.status = said;
    for (int query = 0; query < 5; ++query) phone.radio.connection.answers[static_cast<Query>(query)] = said;
    EXPECT_EQ(lookup_baseband_info(phone.ark.get()), changes);
    std::string found;
    for (const char* key : {"IntegratedCircuitCardIdentity", "InternationalMobileSubscriberIdentity",
                            "PreviousSIMStatus", "BasebandBootloaderVersion", "SIMGID1", "SIMGID2"}) {
      const Value value = data_ark_copy(phone.ark.get(), nullptr, text(key).get());
      found += value ? plist::describe(value.get()) : "-";
    }
    EXPECT_EQ(found, expected);
  }
  EXPECT_EQ(phone.platform.posted, Lines(std::size(steps), changed_post));
  Lines lines = phone.platform.take_texts();
  // The last three are kept for this run only.
  EXPECT_EQ(std::erase_if(lines, [](const std::string& line) { return line.starts_with("data_ark_set: "); }), 7u);
  for (std::string& line : lines) line.erase(0, std::string_view("lookup_baseband_info_old: ").size());
  EXPECT_EQ(lines,
            (Lines{"We now have SIM status", "Inserting SIM identity into the data ark",
                   "Inserting subscriber identity into the data ark",
                   "Inserting baseband bootloader version into the data ark", "The SIM status has changed",
                   "The SIM identity has changed", "The subscriber identity has changed",
                   "SIM status has gone away?", "We now have SIM status",
                   "Removing SIM identity from the data ark", "Removing subscriber identity from the data ark"}));
}

TEST(OldLookup, AsksInOrderAndGoesOnAfterEachFailure) {
  Phone phone;
  phone.radio.connection.fails = true;
  Lines lines;
  for (const std::string name :
       {"SIMIdentity", "MobileSubscriberIdentity", "FirmwareVersion", "BootloaderVersion", "Gid1", "Gid2"}) {
    phone.radio.connection.answers[static_cast<Query>(lines.size())] = text("not to be used");
    lines.push_back("lookup_baseband_info_old: _TelvoServerConnectionCopy" + name + "() error: 1.");
    lines.back() += std::to_string(lines.size());
  }
  EXPECT_FALSE(lookup_baseband_info(phone.ark.get()));
  EXPECT_EQ(phone.platform.take_texts(), lines);
  EXPECT_EQ(plist::describe(data_ark_copy(phone.ark.get(), nullptr, nullptr).get()), "(null)");
}

TEST(BasebandStatus, IsWhatTheFirmwareSecurityInformationSays) {
  Phone phone;
  const auto info = create_dict();
  info->set("Fused", plist::Boolean::yes());
  for (const Value& answer : {Value(), Value(text("no dictionary")), Value(info)}) {
    phone.radio.connection.answers[Query::firmware_security_info] = answer;
    EXPECT_EQ(plist::describe(copyBasebandStatus().get()),
              answer.get() == info.get() ? R"({"Fused": true})" : "{}");
  }
  phone.radio.connection.fails = true;
  EXPECT_EQ(plist::describe(copyBasebandStatus().get()), "{}");
  phone.platform.telephony_service = nullptr;
  EXPECT_FALSE(copyBasebandStatus());
  EXPECT_EQ(phone.platform.take_texts(),
            (Lines{"copyBasebandStatus: Telvo returned NULL FirmwareSecurityInfo",
                   "__copyBasebandStatus_block_invoke: got Fused = true from telvo",
                   "copyBasebandStatus: _TelvoServerConnectionCopyFirmwareSecurityInfo() error: 1.7",
                   "copyBasebandStatus: Can't connect to Telvo"}));
}

TEST(PhoneNumber, IsANonEmptyStringOrNull) {
  Phone phone;
  const Value values[] = {text(std::string(1023, '5')), text(std::string(1024, '5')), text(""), number(1),
                          nullptr};
  for (const Value& value : values) {
    phone.radio.phone_number = value;
    EXPECT_EQ(copy_phonenumber().get(), &value < &values[2] ? value.get() : nullptr);
  }
  const std::string locale = "copy_locale: Could not lookup locale preference";
  const std::string returned = "copy_phonenumber: TelvoSettingCopyMyPhoneNumber() returned ";
  EXPECT_EQ(phone.platform.take_texts(),
            (Lines{locale, locale, "copy_phonenumber: Could not convert phone number to string", locale,
                   returned + "an empty phone number - returning NULL",
                   returned + "non-string: 1, but we're returning NULL anyway", returned + "NULL"}));
}

// In a process of its own, for the class.
void follow_a_newer_phone() {
  Phone phone(2);
  const auto properties = create_dict();
  for (const char* key : {"Signal", "MobileEquipmentIdentifier", "IntegratedCircuitCardIdentity",
                          "InternationalMobileEquipmentIdentity"}) {
    properties->set(key, text("x"));
  }
  for (const Value& readiness : {Value(), Value(text("not ready")), Value(text("ready"))}) {
    phone.radio.record = {readiness, properties};
    sim_notification_callback(nullptr, phone.ark.get(), text(telvo_sim_inserted).get(), nullptr, nullptr);
  }
  EXPECT_EQ(phone.platform.take_texts(),
            (Lines{"lookup_baseband_info_new: radio not responding",
                   "lookup_baseband_info_new: radio not ready: not ready",
                   "__lookup_baseband_info_new_block_invoke: got Signal = x from telvo"}));
  EXPECT_EQ(plist::describe(data_ark_copy(phone.ark.get(), nullptr, nullptr).get()), R"({"Signal": "x"})");
  EXPECT_EQ(data_ark_dirty_count(phone.ark.get()), 0u);
  EXPECT_EQ(phone.platform.posted, Lines(3, changed_post));
  phone.platform.prepare_to_die();
  std::_Exit(::testing::Test::HasFailure());
}

TEST(NewerPhoneDeathTest, AnnouncesEachEventAndWithholdsItsIdentities) {
  EXPECT_EXIT(follow_a_newer_phone(), ::testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace corvane
