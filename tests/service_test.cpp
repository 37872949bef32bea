#include <gtest/gtest.h>

#include "client/client.h"
#include "plist/describe.h"
#include "tests/support/daemon_process.h"
#include "tests/support/test_platform.h"
#include "wire/limits.h"

namespace corvane {
namespace {

using plist::Ref;
using testing::DaemonProcess;
using testing::DeviceRoot;
using testing::frame;
using testing::RawClient;
using testing::refusal;
using testing::request;

constexpr std::string_view copy_images = wire::copy_regulatory_images;
constexpr char no_images[] = R"({"Request": "copyRegulatoryImagesWithCompletionBlock:"})";
constexpr char stored[] = R"({"Request": "storeRegulatoryImages:withCompletionBlock:"})";

/// A daemon that serves, and clients of it.
class Service : public ::testing::Test {
 protected:
  RawClient client() const { return RawClient(root_.socket(wire::public_service)); }
  RawClient admin() const { return RawClient(root_.socket(wire::admin_service)); }
  static std::string store_request(Ref<plist::Value> images) {
    const auto request = wire::make_request(wire::store_regulatory_images);
    request->set(wire::images_key, std::move(images));
    return frame(*request);
  }

  const DeviceRoot root_;
  const DaemonProcess daemon_{root_};
};

TEST_F(Service, GivesBackTheImagesThatWereStored) {
  RawClient first = client();
  RawClient second = client();
  RawClient operator_client = admin();
  EXPECT_EQ(first.ask(copy_images), no_images);

  std::string bytes(6u << 20, '\0');
  for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<char>(i * 2654435761u >> 13);
  const auto large = plist::MutableDictionary::create();
  large->set("Image", plist::Data::create(bytes));
  large->set("Same", plist::Data::create(bytes));
  const auto small = plist::MutableArray::create();
  small->append(plist::Boolean::yes());
  small->append(plist::Number::create_int64(1));
  small->append(plist::Date::create(-0.5));
  for (const Ref<plist::Value>& images : {Ref<plist::Value>(large), Ref<plist::Value>(small)}) {
    ASSERT_TRUE(operator_client.send(store_request(images)));
    EXPECT_EQ(operator_client.answer(), stored);
    const auto expected = plist::MutableDictionary::create();
    expected->set("RegulatoryImages", images);
    expected->set("ProductVersion", plist::String::create("9.1"));
    // Both ask before either reads.
    ASSERT_TRUE(first.send(request(copy_images)) && second.send(request(copy_images)));
    for (RawClient* reader : {&second, &first}) {
      const auto response = reader->response();
      ASSERT_TRUE(response);
      EXPECT_TRUE(plist::equal(response->get("Reply"), expected.get()));
      EXPECT_EQ(response->size(), 2u);
    }
  }
}

TEST_F(Service, OffersEachMethodOnItsOwnSocketOnly) {
  RawClient operator_client = admin();
  EXPECT_EQ(client().ask(wire::store_regulatory_images), refusal(wire::store_regulatory_images));
  EXPECT_EQ(operator_client.ask(copy_images), refusal(copy_images));
  EXPECT_EQ(operator_client.ask(wire::store_regulatory_images), refusal(wire::store_regulatory_images));

  testing::write_file(root_.at("/private/var/mobile/Library/cvd/regulatory_images"), "in the way");
  ASSERT_TRUE(operator_client.send(store_request(plist::String::create("images"))));
  const auto failure = operator_client.response();
  ASSERT_TRUE(failure);
  wire::Response response;
  EXPECT_TRUE(wire::read_response(*failure, response) && response.failed);
  EXPECT_EQ(response.code, 2);
  EXPECT_EQ(response.description, "No error description, use the force");
  EXPECT_EQ(client().ask(copy_images), no_images);
}

TEST_F(Service, AnswersWhatIsNoRequestAndStaysConnected) {
  const auto xml = [](const std::string& value) {
    return "<plist><dict><key>Request</key>" + value + "</dict></plist>";
  };
  const std::pair<std::string, std::string> cases[] = {
      {xml("<string>" + std::string(copy_images) + "</string>"), no_images},
      {xml("<string>noSuchRequest:</string>"), refusal("noSuchRequest:")},
      {xml("<string/>"), refusal("")},
      {xml("<integer>1</integer>"), refusal("")},
      {"<plist><dict/></plist>", refusal("")},
      {"<plist><array><string>Request</string></array></plist>", refusal("")},
      {"", refusal("")},
      {"garbage", refusal("")},
      {"bplist00", refusal("")},
  };
  RawClient asker = client();
  for (const auto& [body, answer] : cases) {
    ASSERT_TRUE(asker.send(frame(body, 2) + frame(body) + frame(body, 0)));
    EXPECT_EQ(asker.answer(), answer) << body.substr(0, 100);
  }
  EXPECT_EQ(asker.ask(copy_images), no_images);
  EXPECT_FALSE(asker.has_news());
}

TEST_F(Service, AnswersPipelinedRequestsInOrder) {
  RawClient asker = client();
  std::string requests;
  std::vector<std::string> answers;
  for (int i = 0; i < 1000; ++i) {
    const std::string selector = "request" + std::to_string(i);
    requests += request(i % 2 == 0 ? selector : copy_images);
    answers.push_back(i % 2 == 0 ? refusal(selector) : no_images);
  }
  ASSERT_TRUE(asker.send(requests));
  // Its sending side closed, a client still gets every answer that is due.
  asker.finish();
  for (const std::string& answer : answers) ASSERT_EQ(asker.answer(), answer);
  EXPECT_TRUE(asker.ends());
}

TEST_F(Service, EndsAConnectionThatIsNoStreamOfFramesAfterTheAnswersDue) {
  const auto header = [](uint8_t version, uint32_t length) {
    auto bytes = wire::encode_header({wire::raw_data_kind, length});
    bytes[2] = static_cast<char>(version);
    return std::string(bytes.begin(), bytes.end());
  };
  RawClient bystander = client();
  for (const std::string& fault :
       {std::string("GET / HTTP/1.1\r\n"), header(2, 0), header(1, wire::public_request_limit + 1)}) {
    RawClient asker = client();
    ASSERT_TRUE(asker.send(request("first") + request("second") + fault + request("third")));
    EXPECT_EQ(asker.answer(), refusal("first"));
    EXPECT_EQ(asker.answer(), refusal("second"));
    EXPECT_TRUE(asker.ends());
  }
  EXPECT_EQ(bystander.ask(copy_images), no_images);
}

TEST_F(Service, LimitsRequestsByTheSocketThatTheyComeFrom) {
  const std::string longest(wire::public_request_limit, ' ');
  RawClient asker = client();
  ASSERT_TRUE(asker.send(frame(longest)));
  EXPECT_EQ(asker.answer(), refusal(""));
  RawClient operator_client = admin();
  ASSERT_TRUE(operator_client.send(frame(longest + ' ')));
  EXPECT_EQ(operator_client.answer(), refusal(""));

  asker.send(frame(longest + ' '));
  EXPECT_TRUE(asker.ends());
  const auto header = wire::encode_header({wire::raw_data_kind, wire::admin_request_limit + 1});
  ASSERT_TRUE(operator_client.send({header.data(), header.size()}));
  EXPECT_TRUE(operator_client.ends());
}

TEST_F(Service, SurvivesARequestCutAtEveryByte) {
  const std::string whole = request(copy_images);
  for (size_t length = 0; length <= whole.size(); ++length) {
    RawClient dying = client();
    RawClient half_closing = client();
    ASSERT_TRUE(dying.send(whole.substr(0, length)) && half_closing.send(whole.substr(0, length)));
    half_closing.finish();
    EXPECT_EQ(half_closing.answer(), length == whole.size() ? no_images : "(null)");
    // A request that comes in two parts is one request all the same.
    RawClient slow = client();
    ASSERT_TRUE(slow.send(whole.substr(0, length)));
    EXPECT_EQ(client().ask(copy_images), no_images);
    ASSERT_TRUE(slow.send(whole.substr(length)));
    EXPECT_EQ(slow.answer(), no_images);
  }
}

}  // namespace
}  // namespace corvane
