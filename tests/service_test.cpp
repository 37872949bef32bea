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
constexpr char stored[] = R"({"Request": "storeRegulatoryImages:withCompletionBlock:"})";

std::string store_request(Ref<plist::Value> images) {
  const auto request = wire::make_request(wire::store_regulatory_images);
  request->set(wire::images_key, std::move(images));
  return frame(*request);
}

std::string header(uint32_t length, char version = 1) {
  const auto bytes = wire::encode_header({wire::raw_data_kind, length});
  return std::string(bytes.begin(), bytes.end()).replace(2, 1, 1, version);
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
  std::string bytes(6u << 20, '\0');
  for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<char>(i * 2654435761u >> 13);
  const auto large = plist::MutableDictionary::create();
  large->set("Image", plist::Data::create(bytes));
  large->set("Same", plist::Data::create(bytes));
  for (const Ref<plist::Value>& images :
       {Ref<plist::Value>(large), Ref<plist::Value>(plist::Date::create(-0.5))}) {
    ASSERT_TRUE(operator_.send(store_request(images)));
    EXPECT_EQ(operator_.answer(), stored);
    const auto expected = plist::MutableDictionary::create();
    expected->set("RegulatoryImages", images);
    expected->set("ProductVersion", plist::String::create("9.1"));
    // Both ask before either reads.
    ASSERT_TRUE(asker_.send(request(copy_images)) && second.send(request(copy_images)));
    for (RawClient* reader : {&second, &asker_}) {
      const auto response = reader->response();
      ASSERT_TRUE(response);
      EXPECT_TRUE(plist::equal(response->get("Reply"), expected.get()));
      EXPECT_EQ(response->size(), 2u);
    }
  }
}

TEST_F(Service, OffersEachMethodOnItsOwnSocketOnly) {
  EXPECT_EQ(asker_.ask(wire::store_regulatory_images), refusal(wire::store_regulatory_images));
  EXPECT_EQ(operator_.ask(copy_images), refusal(copy_images));
  EXPECT_EQ(operator_.ask(wire::store_regulatory_images), refusal(wire::store_regulatory_images));

  testing::write_file(root_.at("/private/var/mobile/Library/cvd/regulatory_images"), "in the way");
  ASSERT_TRUE(operator_.send(store_request(plist::String::create("images"))));
  wire::Response response;
  EXPECT_TRUE(wire::read_response(*operator_.response(), response) && response.failed);
  EXPECT_EQ(response.code, 2);
  EXPECT_EQ(response.description, "No error description, use the force");
  EXPECT_EQ(asker_.ask(copy_images), no_images);
}

TEST_F(Service, TellsTheOperatorAProcessesEntitlements) {
  testing::write_file(root_.profile(),
                      "<plist><dict><key>Entitlements</key><dict><key>7</key><dict/></dict></dict></plist>");
  const auto ask = [&](Ref<plist::Value> pid) {
    const auto request = wire::make_request(wire::copy_entitlements);
    request->set(wire::pid_key, std::move(pid));
    return operator_.send(frame(*request)) ? operator_.answer() : "";
  };
  const std::string selector(wire::copy_entitlements);
  EXPECT_EQ(ask(plist::Number::create_int64(7)), R"({"Reply": {}, "Request": ")" + selector + R"("})");
  EXPECT_EQ(ask(plist::Number::create_int32(8)), R"({"Request": ")" + selector + R"("})");
  for (const Ref<plist::Value>& pid :
       {Ref<plist::Value>(plist::Number::create_int64(int64_t{1} << 32 | 7)),
        Ref<plist::Value>(plist::Number::create_real(7)), Ref<plist::Value>(plist::Number::create_int32(0)),
        Ref<plist::Value>(plist::String::create("7"))}) {
    EXPECT_EQ(ask(pid), refusal(selector));
  }
  EXPECT_EQ(operator_.ask(selector), refusal(selector));
}

TEST_F(Service, AnswersWhatIsNoRequestAndStaysConnected) {
  const std::string start = "<plist><dict><key>Request</key>";
  const std::string end = "</dict></plist>";
  const std::pair<std::string, std::string> cases[] = {
      {start + "<string>" + std::string(copy_images) + "</string>" + end, no_images},
      {start + "<string>noSuchRequest:</string>" + end, refusal("noSuchRequest:")},
      {start + "<integer>1</integer>" + end, refusal("")},
      {"<plist><dict/></plist>", refusal("")},
      {"<plist><array><string>Request</string></array></plist>", refusal("")},
      {"", refusal("")},
  };
  for (const auto& [body, answer] : cases) {
    ASSERT_TRUE(asker_.send(frame(body, 2) + frame(body) + frame(body, 0)));
    EXPECT_EQ(asker_.answer(), answer) << body;
  }
  EXPECT_EQ(asker_.ask(copy_images), no_images);
  EXPECT_FALSE(asker_.has_news());
}

TEST_F(Service, AnswersPipelinedRequestsInOrder) {
  std::string requests;
  for (int i = 0; i < 1000; ++i) requests += request(i % 2 == 0 ? std::to_string(i) : copy_images);
  ASSERT_TRUE(asker_.send(requests));
  // Its sending side closed, a client still gets every answer that is due.
  asker_.finish();
  for (int i = 0; i < 1000; ++i) ASSERT_EQ(asker_.answer(), i % 2 == 0 ? refusal(std::to_string(i)) : no_images);
  EXPECT_TRUE(asker_.ends());
}

TEST_F(Service, EndsAConnectionThatIsNoStreamOfFramesAfterTheAnswersDue) {
  for (const std::string& fault :
       {std::string("GET / HTTP/1.1\r\n"), header(0, 2), header(wire::public_request_limit + 1)}) {
    RawClient faulty = client();
    ASSERT_TRUE(faulty.send(request("first") + request("second") + fault + request("third")));
    EXPECT_EQ(faulty.answer(), refusal("first"));
    EXPECT_EQ(faulty.answer(), refusal("second"));
    EXPECT_TRUE(faulty.ends());
  }
  EXPECT_EQ(asker_.ask(copy_images), no_images);
}

TEST_F(Service, LimitsRequestsByTheSocketThatTheyComeFrom) {
  const std::string longest(wire::public_request_limit, ' ');
  ASSERT_TRUE(asker_.send(frame(longest)));
  EXPECT_EQ(asker_.answer(), refusal(""));
  ASSERT_TRUE(operator_.send(frame(longest + ' ')));
  EXPECT_EQ(operator_.answer(), refusal(""));
  ASSERT_TRUE(operator_.send(header(wire::admin_request_limit + 1)));
  EXPECT_TRUE(operator_.ends());
}

TEST_F(Service, SurvivesARequestCutAtEveryByte) {
  const std::string whole = request(copy_images);
  for (size_t length = 0; length <= whole.size(); ++length) {
    const std::string part = whole.substr(0, length);
    RawClient half_closing = client();
    // A request that comes in two parts is one request all the same.
    RawClient slow = client();
    ASSERT_TRUE(client().send(part) && half_closing.send(part) && slow.send(part));
    half_closing.finish();
    EXPECT_EQ(half_closing.answer(), length == whole.size() ? no_images : "(null)");
    EXPECT_EQ(asker_.ask(copy_images), no_images);
    ASSERT_TRUE(slow.send(whole.substr(length)));
    EXPECT_EQ(slow.answer(), no_images);
  }
}

}  // namespace
}  // namespace corvane
