#include "support/b64.h"

#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "fuzz/plain_base64.h"
#include "support/b64_kernels.h"

namespace corvane {
namespace {

using testing::plain_decode;
using testing::plain_encode;
using Decoded = testing::PlainDecoded;

#ifdef CORVANE_SANITIZE
constexpr int differential_inputs = 100000;
#else
constexpr int differential_inputs = 1000000;
#endif

// Into a buffer of exactly the size asked for, so that a sanitizer sees a step beyond.
std::string encode(const std::string& octets, size_t line, size_t spare = 0) {
  uint32_t rc = 7;
  const size_t size = b64_encode_(octets.data(), octets.size(), nullptr, 0, line, &rc);
  std::vector<char> text(size + spare, '\0');
  text.reserve(1);
  EXPECT_EQ(b64_encode_(octets.data(), octets.size(), text.data(), text.size(), line, &rc), size);
  EXPECT_EQ(rc, B64_OK);
  return {text.begin(), std::find(text.begin(), text.end(), '\0')};
}

Decoded decode(const std::string& text, uint32_t flags = 0) {
  const std::vector<char> input(text.begin(), text.end());
  const char* bad = nullptr;
  uint32_t rc = 7;
  const size_t bound = b64_decode_(input.data(), input.size(), nullptr, 0, flags, &bad, &rc);
  EXPECT_EQ(bound, (text.size() + 3) / 4 * 3);
  std::string octets(bound + 1, '\0');
  octets.resize(b64_decode_(input.data(), input.size(), octets.data(), bound, flags, &bad, &rc));
  EXPECT_EQ(rc, bad == nullptr ? B64_OK : B64_BAD_DATA);
  return {octets, bad == nullptr ? std::string::npos : static_cast<size_t>(bad - input.data())};
}

TEST(Base64, AnswersLikeThePlainReferenceAtEveryWidth) {
  std::mt19937_64 random(48);
  using namespace std::string_literals;
  const std::string strangers = "=== \t\b\v\r\n\n*-_.\0\x01\x7F\x80\xC3\xFF@[`{:"s;
  for (int i = 0; i < differential_inputs; ++i) {
    std::string octets(random() % (i % 8 == 0 ? 400 : 70), '\0');
    for (char& octet : octets) octet = static_cast<char>(random());
    const size_t line = std::vector<size_t>{0, 4, 8, 60, 64, 76, 400}[random() % 7];
    const bool spare = random() % 2 == 0;
    if (octets.empty() && line != 0) continue;
    const std::string text = plain_encode(octets, line, spare);
    ASSERT_EQ(encode(octets, line, spare ? 3 : 0), text) << octets.size() << " in lines of " << line;

    std::string mutated = text;
    for (uint64_t faults = random() % 4; faults > 0 && !mutated.empty(); --faults) {
      const size_t at = random() % mutated.size();
      const char stranger =
          random() % 2 == 0 ? strangers[random() % strangers.size()] : static_cast<char>(random());
      random() % 2 == 0 ? void(mutated[at] = stranger) : void(mutated.insert(at, 1, stranger));
    }
    for (const uint32_t flags : {0u, 0x100u, 0x200u, 0x300u}) {
      ASSERT_EQ(decode(mutated, flags), plain_decode(mutated, flags)) << mutated;
    }

    const std::string clean = plain_encode(octets.substr(0, octets.size() / 3 * 3), 0, false);
    const size_t clean_length = std::min(clean.size(), mutated.find_first_not_of(b64_chars)) / 4 * 4;
    for (const B64Kernels& kernels : b64_kernels()) {
      std::vector<char> out(clean.size());
      kernels.encode(reinterpret_cast<const unsigned char*>(octets.data()), octets.size() / 3, out.data());
      ASSERT_EQ(std::string(out.begin(), out.end()), clean) << kernels.name;
      std::vector<unsigned char> back(mutated.size() / 4 * 3);
      ASSERT_GE(kernels.decode(mutated.data(), mutated.size(), back.data(), {}).read, clean_length)
          << kernels.name;
      ASSERT_EQ(std::memcmp(back.data(), plain_decode(mutated.substr(0, clean_length), 0).octets.data(),
                            clean_length / 4 * 3),
                0)
          << kernels.name;
    }
  }
}

TEST(Base64, KeepsTheStandardsVectorsAndItsOwnCorners) {
  const std::pair<std::string, std::string> vectors[] = {
      {"", ""}, {"f", "Zg=="}, {"fo", "Zm8="}, {"foo", "Zm9v"}, {"foob", "Zm9vYg=="}, {"fooba", "Zm9vYmE="}};
  for (const auto& [octets, text] : vectors) {
    EXPECT_EQ(encode(octets, 0), text);
    EXPECT_EQ(decode(text, B64_STOP_ON_SPACE | B64_STOP_ON_UNKNOWN), Decoded{octets});
  }
  EXPECT_EQ(decode("QUJDRA"), Decoded{"ABC"});
  EXPECT_EQ(decode("A=BC").octets.size(), 3u);
  EXPECT_EQ(decode("A=B=").octets.size(), 2u);
  EXPECT_EQ(decode("====QUJD"), Decoded{std::string(3, '\0')});

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
