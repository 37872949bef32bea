#include "support/b64.h"

#include <gtest/gtest.h>

#include <string>

namespace corvane {
namespace {

// Line feeds, lenient decoding and the kernels are compared with a plain reference by fuzz/b64.cpp.

TEST(Base64, BreaksLinesWhereTheFlagsSay) {
  const auto line_feeds = [](uint32_t flags, int32_t length) {
    return b64_encode2(nullptr, 114, nullptr, 0, flags, length, nullptr) - 152;
  };
  EXPECT_EQ(line_feeds(B64_LINES_FROM_PARAM, -1), 2u) << "lines of 64 characters";
  EXPECT_EQ(line_feeds(B64_LINES_FROM_PARAM, 0), 0u);
  EXPECT_EQ(line_feeds(B64_LINES_FROM_PARAM, 4), 37u);
  EXPECT_EQ(line_feeds(B64_LINES_NONE | 0x50, 6), 0u) << "only the low four bits count";
  EXPECT_EQ(line_feeds(B64_LINES_64, 6), 2u);
  EXPECT_EQ(line_feeds(B64_LINES_76, 6), 1u);
}

TEST(Base64, DecodesNothingIntoABufferBelowTheBound) {
  char octets[2];
  uint32_t rc = B64_OK;
  EXPECT_EQ(b64_decode2("QQ==", 4, octets, sizeof octets, 0, nullptr, &rc), 0u);
  EXPECT_EQ(rc, B64_SHORT_BUFFER);
}

TEST(Base64DeathTest, ABrokenPreconditionAbortsWithItsText) {
  const auto assertion = [](const std::string& expression, const std::string& function) {
    return "\\(" + expression + "\\), function " + function + ", file b64.cpp, line [0-9]+";
  };
  uint32_t rc = 0;
  EXPECT_DEATH(b64_encode_("", 0, nullptr, 0, 0, nullptr), assertion("NULL != rc", "b64_encode_"));
  EXPECT_DEATH(b64_decode_("", 0, nullptr, 0, 0, nullptr, &rc), assertion("NULL != badChar", "b64_decode_"));
  EXPECT_DEATH(b64_encode2("", 0, nullptr, 0, 0, 6, nullptr), assertion("0 == .lineLen % 4.", "b64_encode2"));
  char out[9];
  EXPECT_DEATH(b64_encode_("123456", 6, out, sizeof out, 6, &rc), assertion("len != lineLen", "b64_encode_"));
}

}  // namespace
}  // namespace corvane
