#include "platform/log/log_line.h"

#include <gtest/gtest.h>

#include "plist/unicode.h"

namespace corvane {
namespace {

std::string message_of(std::string_view message) {
  const LogLine line(7, "CV", message, 1000);
  EXPECT_TRUE(line.without_head().starts_with("CV: "));
  return std::string(line.without_head().substr(4));
}

// Whatever a terminal acts on, or another reader takes for the end of a line.
TEST(LogLine, EscapesWhatWouldForgeAnotherLine) {
  EXPECT_EQ(message_of("two line feeds\n\n"), "two line feeds\\n");
  EXPECT_EQ(message_of("a\tb\r\nc"), "a\\tb\\r\\nc");
  EXPECT_EQ(message_of("\x1b[2J \x1f \x7f ~"), "\\x1b[2J \\x1f \\x7f ~");
  EXPECT_EQ(message_of(std::string_view("\0", 1)), "\\x00");
  EXPECT_EQ(message_of("\xc2\x80 \xc2\x9f \xc2\xa0"), "\\x80 \\x9f \xc2\xa0") << "C1 controls, no-break space";
  EXPECT_EQ(message_of("\xe2\x80\xa7 \xe2\x80\xa8 \xe2\x80\xa9"), "\xe2\x80\xa7 \\u2028 \\u2029") << "separators";
  EXPECT_EQ(message_of("\xc2 "), "\\xc2 ") << "no UTF-8";
}

TEST(LogLine, FindsAControlCharacterAtEveryPlace) {
  for (size_t place = 0; place < 20; ++place) {
    SCOPED_TRACE(place);
    std::string message(20, '~');
    message[place] = '\x1f';
    EXPECT_EQ(message_of(message), std::string(place, '~') + "\\x1f" + std::string(19 - place, '~'));
    message[place] = '\x7f';
    EXPECT_EQ(message_of(message), std::string(place, '~') + "\\x7f" + std::string(19 - place, '~'));
  }
}

TEST(LogLine, CutsALongMessageBehindAWholeCharacter) {
  std::string euros;
  for (int i = 0; i < 300; ++i) euros += "\xe2\x82\xac";
  for (const std::string& message : {euros, "x" + euros, "xx" + euros}) {
    const LogLine line(7, "CV", message, 500);
    EXPECT_LE(line.whole().size(), 500U);
    EXPECT_GT(line.whole().size(), 450U);
    const std::string kept(line.without_head().substr(4, line.without_head().rfind(" [") - 4));
    EXPECT_TRUE(message.starts_with(kept) && plist::unicode::is_utf8(kept));
    EXPECT_TRUE(line.whole().ends_with(" [" + std::to_string(message.size() - kept.size()) + " more bytes]\n"));
  }
}

}  // namespace
}  // namespace corvane
