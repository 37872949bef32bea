#include <gtest/gtest.h>

#include <cstring>
#include <deque>
#include <filesystem>

#include "client/methods.h"
#include "tests/support/daemon_process.h"
#include "wire/limits.h"

namespace corvane {
namespace {

using namespace testing;

constexpr rlim_t few_descriptors = 100;
constexpr size_t few_connections = wire::connection_limits(few_descriptors).public_connections;

/// A simulated tablet with a radio and its daemon, and an operator who asks how it is.
class Status : public ::testing::Test {
 protected:
  Status() : daemon_((insert_sim("ready"), root_), few_descriptors) {}

  /// The card's subscriber cannot be read.
  const DeviceRoot& insert_sim(const std::string& status) const {
    const std::string error =
        "<dict><key>Domain</key><integer>1</integer><key>Error</key><integer>7</integer></dict>";
    const std::string errors = "<key>Errors</key><dict><key>SubscriberIdentity</key>" + error + "</dict>";
    std::string profile = read_file(CORVANE_SOURCE_DIR "/profiles/phone.plist");
    profile.replace(profile.find("not inserted"), std::strlen("not inserted"), status);
    write_file(root_.profile(), profile.insert(profile.find("<key>FirmwareVersion"), errors));
    return root_;
  }
  /// What an answer has at the end of a path of keys.
  static std::string at(const client::Answer& answer, std::initializer_list<std::string_view> path) {
    const plist::Value* value = answer.response.reply.get();
    for (const std::string_view key : path) {
      const auto* dictionary = plist::cast<plist::Dictionary>(value);
      value = dictionary == nullptr ? nullptr : dictionary->get(key);
    }
    return plist::describe(value);
  }
  std::string status(std::initializer_list<std::string_view> path) {
    return at(client::copy_status(operator_), path);
  }
  std::string closed(std::string_view service, std::string_view reason) {
    return status({"Services", service, "Closed", reason});
  }
  std::deque<RawClient> clients(size_t count, std::string_view service = wire::public_service) const {
    std::deque<RawClient> all;
    while (all.size() < count) all.emplace_back(root_.socket(service));
    return all;
  }

  const DeviceRoot root_;
  const DaemonProcess daemon_;
  client::Connection operator_{wire::admin_service, root_.at("")};
};

TEST_F(Status, CountsRequestsAndConnectionsByTheReasonOfTheirEnd) {
  auto four = clients(4);
  RawClient &unfinished = four[0], &unread = four[1], &no_frame = four[2], &too_long = four[3];
  client::store_regulatory_images(operator_, plist::String::create(std::string(4u << 20, 'i')));
  ASSERT_TRUE(unfinished.send("CV") && unread.send(request(wire::copy_regulatory_images)));
  EXPECT_EQ(no_frame.ask("r"), refusal("r"));
  ASSERT_TRUE(no_frame.send("no frame") && no_frame.ends());
  const auto header = wire::encode_header({wire::raw_data_kind, wire::public_request_limit + 1});
  ASSERT_TRUE(too_long.send({header.data(), header.size()}) && too_long.ends());
  EXPECT_EQ(closed("Public", "bad frame"), "1");
  EXPECT_EQ(closed("Public", "too long"), "1");
  EXPECT_EQ(status({"Services", "Public", "Errors", "1"}), "1");
  EXPECT_TRUE(clients(wire::admin_connection_limit, wire::admin_service).back().ends()) << "beside the operator";
  EXPECT_TRUE(eventually([&] { return closed("Admin", "refused") == "1"; }));

  EXPECT_TRUE(unfinished.ends());
  EXPECT_EQ(closed("Public", "timeout"), "1");
  EXPECT_TRUE(eventually([&] { return closed("Public", "not reading") == "1"; }));

  const auto idle = clients(few_connections + 1);
  EXPECT_TRUE(eventually([&] { return closed("Public", "evicted") == "1"; }));
}

TEST_F(Status, TellsAStoreThatFailed) {
  std::filesystem::create_directory(root_.at("/private/var/mobile/Library/cvd/data_ark.plist.XXXXXX"));
  EXPECT_EQ(client::set_ark_value(operator_, {{}, "key"}, plist::String::create("value")).response.code, 2);
  EXPECT_EQ(status({"Ark"}),
            R"({"Entries": 1, "FailedStores": 1, "Stores": 2, "Unsaved": 0, "WasUnreadable": false})");
}

TEST_F(Status, TellsOfTheDeviceAndItsRadio) {
  const auto type = client::copy_device_type(operator_, {"ProductVersion", "Colour"});
  EXPECT_EQ(at(type, {"Properties"}) + at(type, {"Errors"}), R"({"ProductVersion": "9.1"}["No Colour"])");
  EXPECT_EQ(at(type, {"DeviceType", "HasTelephony"}) + at(type, {"DeviceType", "BasebandClass"}), "true1");
  EXPECT_EQ(client::copy_device_type(operator_, std::vector<std::string>(65, "ProductVersion")).response.code, 1);
  EXPECT_EQ(client::copy_device_type(operator_, {std::string(257, 'p')}).response.code, 1);

  EXPECT_EQ(at(client::copy_radio(operator_), {"Ark"}), "{}") << "no look-up runs for the question";
  insert_sim("locked");
  EXPECT_TRUE(eventually([&] { return status({"Radio", "Changes"}) == "1"; }));
  const auto radio = client::copy_radio(operator_);
  EXPECT_EQ(at(radio, {"Queries", "SubscriberIdentity"}), R"({"Error": "1.7"})");
  EXPECT_EQ(at(radio, {"Ark", "PreviousSIMStatus"}), "locked");
}

}  // namespace
}  // namespace corvane
