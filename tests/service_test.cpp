#include <gtest/gtest.h>

#include "tests/support/daemon_process.h"
#include "wire/limits.h"

namespace corvane {
namespace {

using plist::Ref;
using testing::frame;
using testing::RawClient;
using testing::refusal;
using testing::request;

constexpr std::string_view copy_images = wire::copy_regulatory_images;
constexpr char no_images[] = R"({"Request": "copyRegulatoryImagesWithCompletionBlock:"})";

std::string request_with(std::string_view selector, std::string_view key, Ref<plist::Value> value) {
  const auto request = wire::make_request(selector);
  request->set(key, std::move(value));
  return frame(*request);
}

/// A daemon that serves, and clients of it.
class Service : public ::testing::Test {
 protected:
  RawClient client() const { return RawClient(root_.socket(wire::public_service)); }

  const testing::DeviceRoot root_;
  const testing::DaemonProcess daemon_{root_};
  RawClient asker_ = client();
  RawClient operator_{root_.socket(wire::admin_service)};
};

TEST_F(Service, GivesBackTheImagesThatWereStored) {
  RawClient second = client();
  std::string bytes;
  while (bytes.size() < 6u << 20) bytes += std::to_string(bytes.size());
  const auto images = plist::Data::create(bytes);
  ASSERT_TRUE(operator_.send(request_with(wire::store_regulatory_images, wire::images_key, images)));
  EXPECT_EQ(operator_.answer(), R"({"Request": "storeRegulatoryImages:withCompletionBlock:"})");
  // Both ask before either reads.
  ASSERT_TRUE(asker_.send(request(copy_images)) && second.send(request(copy_images)));
  const auto reply = plist::MutableDictionary::create(), expected = wire::make_request(copy_images);
  reply->set("RegulatoryImages", images);
  reply->set("ProductVersion", plist::String::create("9.1"));
  expected->set("Reply", reply);
  for (RawClient* reader : {&second, &asker_}) EXPECT_TRUE(plist::equal(reader->response().get(), expected.get()));
}

TEST_F(Service, TellsItsVersionWithoutALogLine) {
  const testing::Lines log = daemon_.log();
  EXPECT_NE(asker_.ask(wire::copy_version).find(R"({"Reply": {"Version": "0)"), std::string::npos);
  EXPECT_EQ(daemon_.log(), log);
}

TEST_F(Service, OffersEachMethodOnItsOwnSocketOnly) {
  EXPECT_EQ(asker_.ask(wire::store_regulatory_images), refusal(wire::store_regulatory_images));
  EXPECT_EQ(operator_.ask(copy_images), refusal(copy_images));
  EXPECT_EQ(operator_.ask(wire::store_regulatory_images), refusal(wire::store_regulatory_images));
}

TEST_F(Service, TellsNoEntitlementsOfWhatIsNoProcessId) {
  const Ref<plist::Value> no_pids[] = {plist::Number::create_int64(int64_t{1} << 32 | 7),
                                       plist::Number::create_int64(0), plist::Number::create_real(7)};
  for (const Ref<plist::Value>& pid : no_pids) {
    ASSERT_TRUE(operator_.send(request_with(wire::copy_entitlements, wire::pid_key, pid)));
    EXPECT_EQ(operator_.answer(), refusal(wire::copy_entitlements)) << plist::describe(pid.get());
  }
  EXPECT_EQ(operator_.ask(wire::copy_entitlements), refusal(wire::copy_entitlements)) << "no id at all";
}

TEST_F(Service, AnswersAllThatWasAskedBeforeTheSendingSideClosed) {
  std::string requests;
  for (int i = 0; i < 1000; ++i) requests += request(std::to_string(i));
  ASSERT_TRUE(asker_.send(requests));
  asker_.finish();
  for (int i = 0; i < 1000; ++i) ASSERT_EQ(asker_.answer(), refusal(std::to_string(i)));
  EXPECT_TRUE(asker_.ends());
}

TEST_F(Service, LimitsRequestsByTheSocketThatTheyComeFrom) {
  const std::string longest(wire::public_request_limit, ' ');
  ASSERT_TRUE(asker_.send(frame(longest, 2) + frame(longest) + frame("", 0)));
  EXPECT_EQ(asker_.answer(), refusal(""));
  EXPECT_EQ(asker_.ask(copy_images), no_images);
  ASSERT_TRUE(operator_.send(frame(longest + ' ')));
  EXPECT_EQ(operator_.answer(), refusal(""));
  const auto too_long = wire::encode_header({wire::raw_data_kind, wire::admin_request_limit + 1});
  ASSERT_TRUE(operator_.send({too_long.data(), too_long.size()}));
  EXPECT_TRUE(operator_.has_news(4000) && operator_.ends()) << "before a request that stays unfinished times out";
}

}  // namespace
}  // namespace corvane
