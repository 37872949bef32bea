#include "support/b64.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <utility>

namespace corvane {
namespace {

std::string encode(const std::string& octets, size_t line, size_t spare = 0) {
  char text[200] = {};
  uint32_t rc = 7;
  const size_t size = b64_encode_(octets.data(), octets.size(), nullptr, 0, line, &rc);
  EXPECT_EQ(b64_encode_(octets.data(), octets.size(), text, size + spare, line, &rc), size);
  return text;
}

// The octets, and where the bad character is.
std::pair<std::string, ptrdiff_t> decode(const std::string& text, uint32_t flags = 0) {
  char octets[200];
  const char* bad = nullptr;
  uint32_t rc = 7;
  const size_t size = b64_decode_(text.data(), text.size(), octets, sizeof octets, flags, &bad, &rc);
  EXPECT_EQ(rc, bad == nullptr ? B64_OK : B64_BAD_DATA);
  return {{octets, size}, bad == nullptr ? -1 : bad - text.data()};
}

// Millions of others are held against a plain reference, fuzz/plain_base64.h.
TEST(Base64, KeepsTheStandardsVectorsAndItsOwnCorners) {
  const std::pair<std::string, std::string> vectors[] = {
      {"", ""}, {"f", "Zg=="}, {"fo", "Zm8="}, {"foo", "Zm9v"}, {"foob", "Zm9vYg=="}, {"fooba", "Zm9vYmE="}};
  for (const auto& [octets, text] : vectors) {
    EXPECT_EQ(encode(octets, 0), text);
    EXPECT_EQ(decode(text, B64_STOP_ON_SPACE | B64_STOP_ON_UNKNOWN), std::pair(octets, ptrdiff_t{-1}));
  }
  EXPECT_EQ(decode("QUJDRA").first, "ABC");
  EXPECT_EQ(decode("A=BC").first.size(), 3u);
  EXPECT_EQ(decode("A=B=").first.size(), 2u);
  EXPECT_EQ(decode("====QUJD").first, std::string(3, '\0'));
  EXPECT_EQ(decode("QU JD*", B64_STOP_ON_UNKNOWN).second, 5);
  EXPECT_EQ(decode("QUJD Q", B64_STOP_ON_SPACE).second, 4);

  // A full last line: the count never has the line feed, a larger destination does.
  const std::string full(48, 'x');
  const std::string line = encode(full, 0);
  EXPECT_EQ(encode(full, 64), line);
  EXPECT_EQ(encode(full, 64, 1), line + "\n");
  EXPECT_EQ(encode(full + "y", 64, 9), line + "\neQ==");

  // Each way to name a line length.
  const auto size = [](uint32_t flags, int32_t length) {
    return b64_encode2(nullptr, 57 * 2, nullptr, 0, flags, length, nullptr);
  };
  EXPECT_EQ(size(B64_LINES_FROM_PARAM, -1), 152u + 2);
  EXPECT_EQ(size(B64_LINES_FROM_PARAM, 0), 152u);
  EXPECT_EQ(size(B64_LINES_FROM_PARAM, 4), 152u + 37);
  EXPECT_EQ(size(B64_LINES_NONE | 0x50, 6), 152u);
  EXPECT_EQ(size(B64_LINES_64, 6), 152u + 2);
  EXPECT_EQ(size(B64_LINES_76, 6), 152u + 1);

  // Nothing in lines is one less than nothing.
  char untouched = '!';
  uint32_t rc = 7;
  EXPECT_EQ(b64_encode_("", 0, nullptr, 0, 64, &rc), SIZE_MAX);
  EXPECT_EQ(b64_encode_("", 0, &untouched, SIZE_MAX, 64, &rc), SIZE_MAX);
  EXPECT_EQ(rc, B64_OK);
  EXPECT_EQ(b64_encode_("", 0, &untouched, 1, 64, &rc), 0u);
  EXPECT_EQ(rc, B64_SHORT_BUFFER);
  EXPECT_EQ(b64_decode2("QQ==", 4, &untouched, 2, 0, nullptr, &rc), 0u);
  EXPECT_EQ(rc, B64_SHORT_BUFFER);
  EXPECT_EQ(untouched, '!');

  for (const uint32_t code : {0u, 1u, 2u, 3u, 4u, 7u, UINT32_MAX}) {
    EXPECT_EQ(b64_getErrorStringLength(code), std::strlen(b64_getErrorString(code)));
    EXPECT_EQ(b64_getErrorStringLength(code) == 0, code > 3);
  }
}

TEST(Base64DeathTest, ABrokenPreconditionAbortsWithItsText) {
  const auto expect_assertion = [](const char* expression, const char* function, const auto& call) {
    EXPECT_EXIT(call(), ::testing::KilledBySignal(SIGABRT),
                "\\(" + std::string(expression) + "\\), function " + function + ", file b64.cpp, line [0-9]+");
  };
  char out[64];
  const char* bad = nullptr;
  uint32_t rc = 0;
  expect_assertion("NULL != rc", "b64_encode_", [] { b64_encode_("", 0, nullptr, 0, 0, nullptr); });
  expect_assertion("NULL != rc", "b64_decode_", [&] { b64_decode_("", 0, nullptr, 0, 0, &bad, nullptr); });
  expect_assertion("NULL != badChar", "b64_decode_", [&] { b64_decode_("", 0, nullptr, 0, 0, nullptr, &rc); });
  expect_assertion("0 == .lineLen % 4.", "b64_encode2", [] { b64_encode2("", 0, nullptr, 0, 0, 6, nullptr); });
  for (const uint32_t selector : {4u, 5u, 15u}) {
    expect_assertion("!\"Bad line length flag specified to b64_encode2..\"", "b64_encode2",
                     [=] { b64_encode2("", 0, nullptr, 0, selector, 0, nullptr); });
  }
  for (const size_t line : {3u, 5u, 6u, 7u}) {
    expect_assertion("len != lineLen", "b64_encode_",
                     [&] { b64_encode_("123456", 6, out, sizeof out, line, &rc); });
  }
  // Where no second group begins, the same lengths do no harm.
  EXPECT_EQ(b64_encode_("1234", 4, out, sizeof out, 6, &rc), 9u);
}

}  // namespace
}  // namespace corvane
