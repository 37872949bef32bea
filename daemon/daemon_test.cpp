#include <gtest/gtest.h>

#include "daemon/corvane_daemon.h"
#include "daemon/corvane_error.h"
#include "daemon/method_table.h"
#include "daemon/request.h"
#include "daemon/response.h"
#include "plist/describe.h"
#include "plist/reader.h"
#include "tests/support/test_platform.h"
#include "wire/limits.h"

namespace corvane {
namespace {

using testing::TestPlatform;
using Lines = std::vector<std::string>;

plist::Ref<plist::String> text(std::string_view utf8) { return plist::String::create(utf8); }

TEST(CorvaneError, DescribesCodesThatNoClientSees) {
  const auto text_of = [](int32_t code) { return plist::describe(CorvaneError::getErrorDescription(code).get()); };
  EXPECT_EQ(text_of(0), R"({"ErrorDescription": "Success"})");
  EXPECT_EQ(text_of(-1), R"({"ErrorDescription": "No error description, use the force"})");
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
  EXPECT_EQ(read("<plist><array/></plist>"), "(null)");
  EXPECT_EQ(platform.take_texts(), Lines{"copy_dict_from_port_data: got something other than a dictionary"});

  // Less deep than an answer may be.
  const auto nested = [](int depth) {
    std::string start, end;
    for (int i = 1; i < depth; ++i) start += "<array>", end += "</array>";
    return "<plist><dict><key>Images</key>" + start + end + "</dict></plist>";
  };
  EXPECT_NE(read(nested(120)), "(null)");
  for (const std::string& bad : {std::string(), good.substr(0, good.size() - 1), nested(121)}) {
    EXPECT_EQ(read(bad), "(null)");
    EXPECT_TRUE(platform.take_texts().at(0).starts_with("copy_dict_from_port_data: PlistCreateWithData failed: "));
  }
}

TEST(Response, HoldsTheLastError) {
  TestPlatform& platform = TestPlatform::fresh();
  const auto response = create_response(text("someRequest:"));
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
  EXPECT_NE(response.pieces().front().find("No error description, use the force"), std::string::npos);
}

TEST(Response, LeavesOutAReplyThatNoResponseCanCarry) {
  TestPlatform& platform = TestPlatform::fresh();
  // As deep as a file may be, which makes the response one level deeper than that.
  static const MethodTable table{
      {"deep",
       [](ExportedObject&, const plist::Dictionary&, const CompletionBlock& completion) {
         plist::Ref<plist::Value> nest = plist::MutableDictionary::create();
         for (unsigned depth = 1; depth < plist::max_depth; ++depth) {
           auto outer = plist::MutableDictionary::create();
           outer->set("inner", nest);
           nest = outer;
         }
         completion(plist::cast<plist::Dictionary>(nest.get()), nullptr);
       }},
      {"long", [](ExportedObject&, const plist::Dictionary&, const CompletionBlock& completion) {
         const auto reply = plist::MutableDictionary::create();
         reply->set("image", plist::MutableData::create(wire::response_limit));
         completion(reply.get(), nullptr);
       }}};
  for (const std::string selector : {"deep", "long"}) {
    SCOPED_TRACE(selector);
    CorvaneDaemon object;
    plist::ByteChain response;
    const std::string request = "<plist><dict><key>Request</key><string>" + selector + "</string></dict></plist>";
    ASSERT_TRUE(table.deliver(object, {Message::raw_data, plist::Data::create(request)}, response));
    const auto body = plist::Data::create(response.pieces().front());
    EXPECT_EQ(plist::describe(plist::decode(body, plist::Containers::immutable).value.get()),
              "{\"Request\": \"" + selector + "\"}");
    EXPECT_TRUE(platform.take_texts().at(0).starts_with("encode: could not send a reply: "));
  }
}

TEST(CorvaneDaemon, KnowsTrueByItsIdentityAndBearsALackingCallback) {
  EXPECT_EQ(CorvaneDaemon::booleanToNumber(plist::Boolean::yes())->int64(), 1);
  EXPECT_EQ(CorvaneDaemon::booleanToNumber(plist::Boolean::no())->int64(), 0);
  EXPECT_EQ(CorvaneDaemon::booleanToNumber(plist::Number::create_int32(1).get())->int64(), 0);
  EXPECT_EQ(CorvaneDaemon::booleanToNumber(nullptr)->int64(), 0);
  CorvaneDaemon().copyRegulatoryImagesWithCompletionBlock(nullptr);
}

}  // namespace
}  // namespace corvane
