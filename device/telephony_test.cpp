#include "device/telephony.h"

#include <gtest/gtest.h>

#include <map>

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

/// A telephony service that answers what a test tells it to, without a notification centre.
struct TestRadio final : Telephony {
  struct Connection final : TelvoServerConnection {
    explicit Connection(TestRadio& owner) : radio(owner) {}
    // A query that fails fills its slot all the same, which nobody may use.
    TelvoStatus copy(Query query, Value& slot) override {
      slot = radio.answers[query];
      return {1, radio.queries_fail ? static_cast<int32_t>(query) + 1 : 0};
    }
    TestRadio& radio;
  };

  TelephonyCentre* default_centre() override { return nullptr; }
  std::unique_ptr<TelvoServerConnection> connect(void (*)()) override {
    return std::make_unique<Connection>(*this);
  }
  TelvoRadioStatus copy_radio_status() override { return record; }
  Value sim_status() override { return status; }
  Value copy_my_phone_number() override { return phone_number; }

  std::map<Query, Value> answers;
  bool queries_fail = false;
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
  void insert_sim(const std::string& name) {
    radio.status = text("status " + name);
    radio.answers = {{Query::sim_identity, text("sim " + name)},
                     {Query::mobile_subscriber_identity, text("owner " + name)},
                     {Query::bootloader_version, text("bootloader " + name)},
                     {Query::group_identifier_1, text("group " + name)},
                     {Query::group_identifier_2, number(2)}};
  }
  bool look_up() { return lookup_baseband_info(ark.get()); }
  std::string ark_text() { return plist::describe(data_ark_copy(ark.get(), nullptr, nullptr).get()); }
  /// What the old look-up logged, without its name; nothing of the ark's own lines.
  Lines look_up_log() {
    const std::string name = "lookup_baseband_info_old: ";
    Lines log;
    for (const std::string& line : platform.take_texts()) {
      if (line.starts_with(name)) log.push_back(line.substr(name.size()));
    }
    return log;
  }

  testing::TestPlatform& platform = testing::TestPlatform::fresh();
  TestRadio radio;
  const DataArk ark = data_ark_load();
};

// The ark after the SIM of this name was looked up. The first bootloader version stays.
std::string ark_of_sim(const std::string& name) {
  return R"({"BasebandBootloaderVersion": "bootloader 1", "IntegratedCircuitCardIdentity": "sim )" + name +
         R"(", "InternationalMobileSubscriberIdentity": "owner )" + name + R"(", "PreviousSIMStatus": "status )" +
         name + R"(", "SIMGID1": "group )" + name + R"(", "SIMGID2": 2})";
}

TEST(OldLookup, FollowsOneSimAndThenAnother) {
  Phone phone;
  phone.insert_sim("1");
  EXPECT_TRUE(phone.look_up());
  EXPECT_EQ(phone.ark_text(), ark_of_sim("1"));
  EXPECT_EQ(data_ark_dirty_count(phone.ark.get()), 3u) << "the bootloader and the groups are not stored";
  EXPECT_EQ(phone.look_up_log(), (Lines{"We now have SIM status", "Inserting SIM identity into the data ark",
                                        "Inserting subscriber identity into the data ark",
                                        "Inserting baseband bootloader version into the data ark"}));
  EXPECT_FALSE(phone.look_up()) << "the same SIM";
  EXPECT_EQ(phone.look_up_log(), Lines());
  phone.insert_sim("2");
  EXPECT_TRUE(phone.look_up());
  EXPECT_EQ(phone.ark_text(), ark_of_sim("2"));
  EXPECT_EQ(phone.look_up_log(), (Lines{"The SIM status has changed", "The SIM identity has changed",
                                        "The subscriber identity has changed"}));
  EXPECT_EQ(phone.platform.posted, Lines(3, changed_post)) << "once for each look-up";
}

TEST(OldLookup, KeepsWhatIsNotAnsweredAndRemovesWhatIsEmpty) {
  Phone phone;
  phone.insert_sim("1");
  phone.look_up();
  phone.radio.status = number(1);
  phone.radio.answers = {{Query::sim_identity, number(1)}, {Query::bootloader_version, number(1)}};
  EXPECT_FALSE(phone.look_up());
  EXPECT_EQ(phone.ark_text(), ark_of_sim("1"));
  phone.look_up_log();
  phone.radio.status = nullptr;
  phone.radio.answers = {{Query::sim_identity, text("")}, {Query::mobile_subscriber_identity, text("")}};
  EXPECT_TRUE(phone.look_up());
  EXPECT_FALSE(phone.look_up()) << "nothing is left to remove";
  EXPECT_EQ(phone.look_up_log(), (Lines{"SIM status has gone away?", "Removing SIM identity from the data ark",
                                        "Removing subscriber identity from the data ark"}));
}

TEST(OldLookup, AsksInOrderAndGoesOnAfterEachFailure) {
  Phone phone;
  phone.insert_sim("1");
  phone.radio.status = nullptr;
  phone.radio.queries_fail = true;
  EXPECT_FALSE(phone.look_up());
  EXPECT_EQ(phone.ark_text(), "(null)");
  Lines errors;
  for (const std::string query :
       {"SIMIdentity", "MobileSubscriberIdentity", "FirmwareVersion", "BootloaderVersion", "Gid1", "Gid2"}) {
    errors.push_back("_TelvoServerConnectionCopy" + query + "() error: 1." + std::to_string(errors.size() + 1));
  }
  EXPECT_EQ(phone.look_up_log(), errors);
  EXPECT_EQ(plist::describe(copyBasebandStatus().get()), "{}");
}

TEST(BasebandStatus, IsTheFirmwareSecurityInformation) {
  Phone phone;
  const auto information = create_dict();
  information->set("Fused", plist::Boolean::yes());
  phone.radio.answers[Query::firmware_security_info] = information;
  EXPECT_EQ(plist::describe(copyBasebandStatus().get()), R"({"Fused": true})");
}

TEST(PhoneNumber, IsANonEmptyStringOrNull) {
  Phone phone;
  const auto number_of = [&phone](const Value& set) {
    phone.radio.phone_number = set;
    return plist::describe(copy_phonenumber().get());
  };
  EXPECT_EQ(number_of(text("+1555")), "+1555");
  EXPECT_EQ(phone.platform.take_texts(), Lines{"copy_locale: Could not lookup locale preference"});
  EXPECT_EQ(number_of(text(std::string(1024, '5'))), std::string(1024, '5'));
  EXPECT_EQ(phone.platform.take_texts().back(), "copy_phonenumber: Could not convert phone number to string");
  EXPECT_EQ(number_of(text("")) + number_of(number(1)) + number_of(nullptr), "(null)(null)(null)");
}

// In a process of its own, which keeps the class.
void follow_a_newer_phone() {
  Phone phone(2);
  const auto properties = create_dict();
  for (const char* key : {"Signal", "MobileEquipmentIdentifier", "IntegratedCircuitCardIdentity",
                          "InternationalMobileEquipmentIdentity"}) {
    properties->set(key, text("x"));
  }
  for (const Value& readiness : {Value(), Value(text("not ready")), Value(text("ready"))}) {
    phone.radio.record = {readiness, properties};
    EXPECT_TRUE(phone.look_up());
  }
  EXPECT_EQ(phone.platform.take_texts(),
            (Lines{"lookup_baseband_info_new: radio not responding",
                   "lookup_baseband_info_new: radio not ready: not ready",
                   "__lookup_baseband_info_new_block_invoke: got Signal = x from telvo"}));
  EXPECT_EQ(phone.ark_text(), R"({"Signal": "x"})") << "identities are withheld";
  EXPECT_EQ(data_ark_dirty_count(phone.ark.get()), 0u) << "nothing of it is stored";
  EXPECT_EQ(phone.platform.posted, Lines(3, changed_post)) << "once for each look-up";
  phone.platform.prepare_to_die();
  std::_Exit(::testing::Test::HasFailure());
}

TEST(NewLookupDeathTest, StoresTheRadiosPropertiesOnceItIsReady) {
  EXPECT_EXIT(follow_a_newer_phone(), ::testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace corvane
