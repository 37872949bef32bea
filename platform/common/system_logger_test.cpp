#include "platform/common/system_logger.h"

#include <gtest/gtest.h>

#include <csignal>
#include <regex>
#include <set>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <syslog.h>
#include <thread>
#include <unistd.h>

#include "platform/common/preferences.h"
#include "plist/unicode.h"
#include "tests/support/test_platform.h"
#include "wire/socket_address.h"

namespace corvane {
namespace {

namespace fs = std::filesystem;
using Lines = std::vector<std::string>;

constexpr size_t file_bytes = 65536;

class SystemLoggerTest : public ::testing::Test {
 protected:
  SystemLoggerTest() { listen(); }
  ~SystemLoggerTest() override { close(system_log_); }

  void listen() {
    const wire::SocketAddress address(root_ + "/log");
    unlink(address.path());
    ASSERT_EQ(bind(system_log_, address.get(), address.size()), 0);
  }

  // What the system log has got since the last time, as "<level>text".
  Lines system_log() {
    Lines lines;
    char line[256];
    for (ssize_t size; (size = recv(system_log_, line, sizeof line, MSG_DONTWAIT)) > 0;) {
      const std::string text(line, static_cast<size_t>(size));
      const std::regex layout(R"(<(\d+)>[A-Z][a-z]{2} [ \d]\d \d\d:\d\d:\d\d corvaned\[)" +
                              std::to_string(getpid()) + R"(\]: ([^]*))");
      std::smatch parts;
      if (!std::regex_match(text, parts, layout)) return {"bad layout: " + text};
      lines.push_back("<" + std::to_string(std::stoi(parts[1]) - LOG_DAEMON) + ">" + parts[2].str());
    }
    return lines;
  }

  // The first one opens the log.
  void write(std::string_view text, int level = LOG_DEBUG) {
    if (handle_ == nullptr) {
      handle_ = logger_.open("Corvane", 3);
      logger_.enable_disk_copy(handle_, log_.c_str(), 2, file_bytes);
    }
    logger_.write(handle_, level, "CV", "%@", *plist::String::create(text));
  }

  // What stands behind the tag in each line, the older file first, after one more line.
  Lines disk_lines_after(std::string_view text) {
    write(text);
    const std::string bytes = testing::read_file(logs_ + "/corvaned/corvaned.1.log") + testing::read_file(log_);
    EXPECT_EQ(bytes.back(), '\n');
    std::istringstream stream(bytes);
    Lines lines;
    for (std::string line; std::getline(stream, line);) lines.push_back(line.substr(line.find("CV: ") + 4));
    return lines;
  }

  int level_with(const std::string& value, const std::string& behind = "") {
    testing::write_file(preferences_file_, "<plist><dict><key>Corvane</key>" + value + "</dict></plist>" + behind);
    return logger_.configured_level("Corvane");
  }

  const std::string root_ = testing::TestPlatform::fresh().root();
  const std::string preferences_file_ = root_ + "/private/var/mobile/Library/Preferences/com.norvane.logger.plist";
  const std::string logs_ = root_ + "/var/mobile/Library/Logs";
  const std::string log_ = logs_ + "/corvaned/corvaned.log";
  PreferenceFiles preferences_{root_};
  SystemLogger logger_{preferences_, false, root_ + "/log"};
  int system_log_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  Logger::Handle* handle_ = nullptr;
};

TEST_F(SystemLoggerTest, LevelIsWhatTheFileSaysNow) {
  EXPECT_EQ(logger_.configured_level("Corvane"), Logger::no_level);
  // Files of one size, written within one tick of the kernel's clock.
  for (int i = 0; i < 50; ++i) ASSERT_EQ(level_with("<integer>" + std::to_string(i % 8) + "</integer>"), i % 8);
  EXPECT_EQ(logger_.configured_level("Other"), Logger::no_level);
  for (const char* other : {"<string>3</string>", "<true/>", "<real>3</real>", "<integer>-1</integer>",
                            "<integer>8</integer>", "<integer>18446744073709551615</integer>", "<integer>3"}) {
    EXPECT_EQ(level_with(other), Logger::no_level) << other;
    EXPECT_EQ(level_with("<integer>3</integer>"), 3);
  }
  EXPECT_EQ(level_with("<integer>3</integer>", std::string(small_file_limit, ' ')), Logger::no_level);
}

// The daemon would hang at every line that it logs.
TEST_F(SystemLoggerTest, FifoHangsNothing) {
  fs::create_directories(logs_ + "/corvaned");
  ASSERT_EQ(mkfifo(preferences_file_.c_str(), 0644) + mkfifo(log_.c_str(), 0644), 0);
  EXPECT_EQ(logger_.configured_level("Corvane"), Logger::no_level);
  write("not into the pipe");
  EXPECT_EQ(system_log(), Lines{"<7>CV: not into the pipe"});
}

// The daemon hung where whoever reads the system log had stopped.
TEST_F(SystemLoggerTest, AFullSystemLogHoldsNothingUp) {
  for (int i = 0; i < 2000; ++i) write(std::to_string(i), LOG_NOTICE);
  EXPECT_EQ(disk_lines_after("on disk").back(), "on disk");
  const Lines first = system_log();
  EXPECT_TRUE(!first.empty() && first.size() < 2000 && first[0] == "<5>CV: 0") << first.size();
  write("read again", LOG_NOTICE);
  EXPECT_EQ(system_log(), Lines{"<5>CV: read again"});
  close(std::exchange(system_log_, socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)));
  write("nobody there", LOG_NOTICE);
  listen();
  write("another one", LOG_NOTICE);
  EXPECT_EQ(system_log(), Lines{"<5>CV: another one"});
}

TEST_F(SystemLoggerTest, MessageIsOneLine) {
  write("100% of %s %n\n", LOG_NOTICE);
  write("a\tb\r\nc\x1b[2J\x7f \xc2\x85 \xe2\x80\xa8 \xc3\xa4\xe2\x82\xac\n\n", LOG_INFO);
  EXPECT_EQ(disk_lines_after(std::string_view("\0", 1)),
            (Lines{"100% of %s %n", "a\\tb\\r\\nc\\x1b[2J\\x7f \\x85 \\u2028 \xc3\xa4\xe2\x82\xac\\n", "\\x00"}));
  EXPECT_EQ(system_log(), Lines{"<5>CV: 100% of %s %n"});
  const std::regex layout(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z corvaned\[)" + std::to_string(getpid()) +
                          R"(\] <5> CV: 100%[^]*)");
  EXPECT_TRUE(std::regex_match(testing::read_file(log_), layout));
}

// A terminal would act on them, and another reader see two lines in one.
TEST_F(SystemLoggerTest, NoControlCharacterComesThrough) {
  std::string all;
  for (int c = 0; c < 0x2100; ++c) {
    const std::string unit{static_cast<char>(c >> 8), static_cast<char>(c)};
    all += plist::String::create_from_utf16be(unit)->view();
  }
  const Lines lines = disk_lines_after(all);
  ASSERT_EQ(lines.size(), 1U);
  std::set<char32_t> through;
  char32_t c = 0;
  for (std::string_view rest = lines[0]; !rest.empty(); through.insert(c)) {
    rest.remove_prefix(plist::unicode::decode_utf8(rest, c));
  }
  EXPECT_EQ(through.size(), 0x2100U - 0x20 - 0x21 - 2);
  for (const char32_t control : {0x00u, 0x1fu, 0x7fu, 0x80u, 0x9fu, 0x2028u, 0x2029u})
    EXPECT_EQ(through.count(control), 0U);
}

TEST_F(SystemLoggerTest, FloodStaysWithinTwoFiles) {
  for (int i = 0; i < 5000; ++i) write("line " + std::to_string(i));
  const Lines flood = disk_lines_after("line 5000");
  const size_t gone = 5001 - flood.size();
  EXPECT_LT(gone, 5001 - file_bytes / 64);
  for (size_t i = 0; i < flood.size(); ++i) ASSERT_EQ(flood[i], "line " + std::to_string(gone + i));
  std::string giant;
  while (giant.size() < 3 * file_bytes) giant += "\xe2\x82\xac";
  write("x" + giant);
  const Lines cut = disk_lines_after("xx" + giant);
  for (const auto& file : fs::directory_iterator(logs_ + "/corvaned")) {
    EXPECT_TRUE(file.file_size() <= file_bytes && file.file_size() > file_bytes - 100) << file;
  }
  ASSERT_EQ(cut.size(), 2U);
  for (size_t i = 0; i < 2; ++i) {
    const size_t note = cut[i].find(" [");
    EXPECT_EQ(note + std::stoul(cut[i].substr(note + 2)), giant.size() + 1 + i);
    EXPECT_EQ(plist::String::create(cut[i])->view(), cut[i]) << "cut within a character";
  }
}

TEST_F(SystemLoggerTest, FolderGoesAndComesBack) {
  fs::remove(logs_);
  write("nowhere to go");
  EXPECT_FALSE(fs::exists(logs_)) << "only the last folder is the log's own";
  EXPECT_EQ(system_log(), Lines{"<7>CV: nowhere to go"});
  fs::create_directory(logs_);
  sleep(2);
  EXPECT_EQ(disk_lines_after("back"), Lines{"back"});

  fs::remove(log_);
  EXPECT_EQ(disk_lines_after("new file"), Lines{"new file"});
  fs::rename(log_, log_ + ".saved");
  testing::write_file(log_, "");
  EXPECT_EQ(disk_lines_after("another file"), Lines{"another file"});
  fs::remove_all(logs_ + "/corvaned");
  EXPECT_EQ(disk_lines_after("new folder"), Lines{"new folder"});
}

// A full disk takes the first half of a line and refuses the rest; a limit on the file's size does the same.
TEST_F(SystemLoggerTest, FullDiskLeavesNoHalfLine) {
  std::signal(SIGXFSZ, SIG_IGN);
  write("first");
  rlimit before;
  getrlimit(RLIMIT_FSIZE, &before);
  const rlimit full{fs::file_size(log_) + 20, before.rlim_max};
  setrlimit(RLIMIT_FSIZE, &full);
  write("refused");
  write("not tried");
  setrlimit(RLIMIT_FSIZE, &before);
  EXPECT_EQ(system_log(), (Lines{"<7>CV: refused", "<7>CV: not tried"}));
  sleep(2);
  EXPECT_EQ(disk_lines_after("again"), (Lines{"first", "again"}));
}

TEST_F(SystemLoggerTest, LinesOfTwoThreadsStayWhole) {
  write("opened");
  const auto write_many = [this](std::string_view line) {
    for (int i = 0; i < 300; ++i) write(line, logger_.configured_level("Corvane") + 7);
  };
  std::thread other(write_many, "one");
  write_many("other");
  other.join();
  const Lines lines = disk_lines_after("closed");
  EXPECT_EQ(std::count(lines.begin(), lines.end(), "one"), 300);
  EXPECT_EQ(std::count(lines.begin(), lines.end(), "other"), 300);
}

}  // namespace
}  // namespace corvane
