#include <gtest/gtest.h>

#include "daemon/error.h"
#include "daemon/protocol.h"
#include "daemon/request.h"
#include "daemon/service.h"
#include "device/regulatory_images.h"
#include "plist/describe.h"
#include "plist/reader.h"
#include "tests/support/test_platform.h"
#include "wire/messages.h"

namespace corvane {
namespace {

using plist::Ref;
using testing::TestPlatform;
using Lines = std::vector<std::string>;

Ref<plist::String> text(std::string_view utf8) { return plist::String::create(utf8); }

TEST(CorvaneError, DescribesEveryCode) {
  const std::string unknown = "No error description, use the force";
  const std::pair<int32_t, std::string> descriptions[] = {
      {0, "Success"}, {1, "Unexpeceted parameter"}, {2, unknown}, {1000, unknown}, {-1, unknown}};
  for (const auto& [code, description] : descriptions) {
    const ErrorObject error = CorvaneError::getError(code);
    EXPECT_EQ(error.domain->view(), "com.norvane.corvaned.error");
    EXPECT_EQ(error.code, code);
    EXPECT_EQ(plist::describe(error.user_info.get()), R"({"ErrorDescription": ")" + description + "\"}");
  }
}

TEST(Request, ReadsADictionaryAndLogsWhyItDoesNot) {
  TestPlatform& platform = TestPlatform::fresh();
  const auto read = [](std::string_view bytes, uint8_t kind = Message::raw_data) {
    const Message message{kind, plist::Data::create(bytes)};
    return plist::describe(copy_dict_from_port_data(&message).get());
  };
  const std::string good = "<plist><dict><key>Request</key><string>r</string></dict></plist>";
  EXPECT_EQ(read(good), R"({"Request": "r"})");
  EXPECT_EQ(read(good, 2), "(null)");
  EXPECT_FALSE(copy_dict_from_port_data(nullptr));
  EXPECT_EQ(platform.take_texts(), Lines{});
  EXPECT_EQ(read("<plist><array/></plist>"), "(null)");
  EXPECT_EQ(platform.take_texts(), Lines{"copy_dict_from_port_data: got something other than a dictionary"});

  // Less deep than an answer may be.
  const auto nested = [](int depth) {
    std::string xml = "<array/>";
    for (int i = 2; i < depth; ++i) xml = "<array>" + xml + "</array>";
    return "<plist><dict><key>Images</key>" + xml + "</dict></plist>";
  };
  EXPECT_NE(read(nested(120)), "(null)");
  for (const std::string& bad : {std::string(), good.substr(0, good.size() - 1), nested(121)}) {
    EXPECT_EQ(read(bad), "(null)");
    const Lines lines = platform.take_texts();
    EXPECT_TRUE(lines.size() == 1 &&
                lines[0].starts_with("copy_dict_from_port_data: PlistCreateWithData failed: "));
  }
}

TEST(Response, NamesItsRequestAndHoldsTheLastError) {
  TestPlatform& platform = TestPlatform::fresh();
  const auto response = create_response(text("someRequest:"));
  EXPECT_EQ(plist::describe(response.get()), R"({"Request": "someRequest:"})");

  set_response_error("reason", *response, text("100% wrong"));
  set_response_error(nullptr, *response, text("Text"));
  set_response_error("reason", *response, plist::Number::create_int32(7));
  EXPECT_EQ(platform.take_texts(), (Lines{"set_response_error: reason 100% wrong", "set_response_error:   Text",
                                          "set_response_error: reason NULL"}));
  EXPECT_EQ(plist::describe(response.get()), R"({"Error": 7, "Request": "someRequest:"})");
}

TEST(Response, AnswersARequestThatRunsOutOfMemory) {
  TestPlatform::fresh();
  const MethodTable table{
      {"r", [](ExportedObject&, const plist::Dictionary&, const CompletionBlock&) { throw std::bad_alloc(); }}};
  CorvaneDaemon object;
  plist::ByteChain response;
  const std::string_view body = "<plist><dict><key>Request</key><string>r</string></dict></plist>";
  ASSERT_TRUE(table.deliver(object, {Message::raw_data, plist::Data::create(body)}, response));
  const auto answer = plist::decode(plist::Data::create(response.pieces().front()), plist::Containers::immutable);
  wire::Response read;
  ASSERT_TRUE(wire::read_response(*plist::cast<plist::Dictionary>(answer.value.get()), read) && read.failed);
  EXPECT_EQ(read.code, CorvaneError::operation_failed);
}

TEST(CorvaneDaemon, KnowsTrueByItsIdentity) {
  EXPECT_EQ(CorvaneDaemon::booleanToNumber(plist::Boolean::yes())->int64(), 1);
  EXPECT_EQ(CorvaneDaemon::booleanToNumber(plist::Boolean::no())->int64(), 0);
  EXPECT_EQ(CorvaneDaemon::booleanToNumber(plist::Number::create_int32(1).get())->int64(), 0);
  EXPECT_EQ(CorvaneDaemon::booleanToNumber(nullptr)->int64(), 0);
}

TEST(CorvaneDaemon, AnswersTheImagesOnceAndBearsALackingCallback) {
  TestPlatform& platform = TestPlatform::fresh();
  platform.properties["ProductVersion"] = text("9.1");
  std::filesystem::create_directory(platform.root() + "/private/var/mobile/Library/cvd");
  const auto images = text("images");
  ASSERT_EQ(store_regulatory_images(*images), 0);

  CorvaneDaemon daemon;
  Lines answers;
  daemon.copyRegulatoryImagesWithCompletionBlock(nullptr);
  daemon.copyRegulatoryImagesWithCompletionBlock([&](plist::Dictionary* reply, const ErrorObject* error) {
    answers.push_back(plist::describe(reply) + (error == nullptr ? "" : " and an error"));
  });
  EXPECT_EQ(answers, Lines{R"({"ProductVersion": "9.1", "RegulatoryImages": "images"})"});
}

}  // namespace
}  // namespace corvane
