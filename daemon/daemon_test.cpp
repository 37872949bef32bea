#include <gtest/gtest.h>

#include "daemon/corvane_daemon.h"
#include "daemon/method_table.h"
#include "daemon/request.h"
#include "daemon/response.h"
#include "plist/describe.h"
#include "plist/reader.h"
#include "state/values.h"
#include "tests/support/test_platform.h"
#include "wire/limits.h"

namespace corvane {
namespace {

using testing::TestPlatform;
using Lines = std::vector<std::string>;

plist::Ref<plist::String> text(std::string_view utf8) { return plist::String::create(utf8); }

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

  for (const std::string& bad : {std::string(), good.substr(0, good.size() - 1)}) {
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

// The response to a request whose method does this.
std::string response_of(decltype(MethodTable::Method::call) method) {
  const MethodTable table{{"r", method}};
  CorvaneDaemon object;
  plist::ByteChain response;
  const std::string_view request = "<plist><dict><key>Request</key><string>r</string></dict></plist>";
  EXPECT_TRUE(table.deliver(object, {Message::raw_data, plist::Data::create(request)}, response));
  const auto body = plist::Data::create(response.pieces().front());
  return plist::describe(plist::decode(body, plist::Containers::immutable).value.get());
}

TEST(Response, AnswersARequestThatRunsOutOfMemory) {
  TestPlatform::fresh();
  const std::string response = response_of(
      [](ExportedObject&, const plist::Dictionary&, const CompletionBlock&) { throw std::bad_alloc(); });
  EXPECT_NE(response.find("No error description, use the force"), std::string::npos);
}

TEST(Response, LeavesOutAReplyThatNoResponseCanCarry) {
  TestPlatform& platform = TestPlatform::fresh();
  // As deep as a file may be, which makes the response one level deeper than that.
  const auto reply_deep = [](ExportedObject&, const plist::Dictionary&, const CompletionBlock& completion) {
    plist::Ref<plist::MutableDictionary> nest = create_dict();
    for (unsigned depth = 1; depth < plist::max_depth; ++depth) {
      const auto outer = create_dict();
      outer->set("inner", std::exchange(nest, outer));
    }
    completion(nest.get(), nullptr);
  };
  const auto reply_long = [](ExportedObject&, const plist::Dictionary&, const CompletionBlock& completion) {
    const auto reply = create_dict();
    reply->set("image", plist::MutableData::create(wire::response_limit));
    completion(reply.get(), nullptr);
  };
  for (const std::string& response : {response_of(reply_deep), response_of(reply_long)}) {
    EXPECT_EQ(response, R"({"Request": "r"})");
  }
  const Lines log = platform.take_texts();
  EXPECT_EQ(log.size(), 2U);
  for (const std::string& line : log) EXPECT_TRUE(line.starts_with("encode: could not send a reply: ")) << line;
}

}  // namespace
}  // namespace corvane
