#include "device/telephony.h"

#include <gtest/gtest.h>

#include "device/device_type.h"
#include "plist/describe.h"
#include "state/values.h"
#include "tests/support/test_platform.h"

namespace corvane {
namespace {

using Lines = std::vector<std::string>;
using Value = plist::Ref<plist::Value>;
using Query = TelvoServerConnection::Query;

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
  // What the radio says to all questions but one, and what is kept, after a "+" where that is a change.
  const std::pair<Value, std::string> steps[] = {
      {nullptr, "-----2"},   {number(1), "----12"},          {text("a"), "+aaaaa2"}, {text("a"), "aaaaa2"},
      {number(1), "aaaa12"}, {text("b"), "+bbbab2"},         {nullptr, "+bb-ab2"},   {text(""), "+--a2"},
      {text(""), "--a2"},    {text("failed"), "+--faileda2"}};
  Radio::Connection& connection = phone.radio.connection;
  connection.answers[Query::group_identifier_2] = number(2);
  for (const auto& [said, expected] : steps) {
    connection.fails = &said == &std::end(steps)[-1].first;
    phone.radio.status = said;
    for (int query = 0; query < 5; ++query) connection.answers[static_cast<Query>(query)] = said;
    std::string found = lookup_baseband_info(phone.ark.get()) ? "+" : "";
    for (const char* key : {"IntegratedCircuitCardIdentity", "InternationalMobileSubscriberIdentity",
                            "PreviousSIMStatus", "BasebandBootloaderVersion", "SIMGID1", "SIMGID2"}) {
      const Value value = data_ark_copy(phone.ark.get(), nullptr, text(key).get());
      found += value ? plist::describe(value.get()) : "-";
    }
    EXPECT_EQ(found, expected);
  }
  EXPECT_EQ(phone.platform.posted.size(), std::size(steps));
  Lines lines = phone.platform.take_texts();
  // A line for each change and each failure, and some on what is kept for this run only.
  EXPECT_EQ(std::erase_if(lines, [](const std::string& line) { return line.starts_with("lookup_"); }), 12u + 6u);
}

TEST(Answers, AreADictionaryOnTheBasebandAndANonEmptyNumberOrNull) {
  Phone phone;
  const auto info = create_dict();
  info->set("Fused", plist::Boolean::yes());
  for (const auto& [answer, fails] :
       {std::pair(Value(), false), {text("no dictionary"), false}, {info, true}, {info, false}}) {
    phone.radio.connection.answers[Query::firmware_security_info] = answer;
    phone.radio.connection.fails = fails;
    EXPECT_EQ(plist::describe(copyBasebandStatus().get()),
              answer.get() == info.get() && !fails ? R"({"Fused": true})" : "{}");
  }
  const Value numbers[] = {text(std::string(1023, '5')), text(std::string(1024, '5')), text(""), number(1),
                           nullptr};
  for (const Value& each : numbers) {
    phone.radio.phone_number = each;
    EXPECT_EQ(copy_phonenumber().get(), &each < &numbers[2] ? each.get() : nullptr);
  }
  phone.platform.telephony_service = nullptr;
  EXPECT_FALSE(copyBasebandStatus());
  // Of a number one, if it is a string on the locale; the longest and the empty one have another.
  EXPECT_EQ(phone.platform.take_lines().size(), 4u + 7u);
}

TEST(NewerPhoneDeathTest, AnnouncesEachEventAndWithholdsItsIdentities) {
  // In a process of its own, for the class.
  const auto follow_a_newer_phone = [] {
    Phone phone(2);
    const auto properties = create_dict();
    for (const char* key : {"Signal", "MobileEquipmentIdentifier", "IntegratedCircuitCardIdentity",
                            "InternationalMobileEquipmentIdentity"})
      properties->set(key, text("x"));
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
    EXPECT_EQ(phone.platform.posted.size(), 3u);
    phone.platform.prepare_to_die();
    std::_Exit(::testing::Test::HasFailure());
  };
  EXPECT_EXIT(follow_a_newer_phone(), ::testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace corvane
