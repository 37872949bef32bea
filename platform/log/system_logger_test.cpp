#include "platform/log/system_logger.h"

#include <gtest/gtest.h>

#include <csignal>
#include <regex>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <syslog.h>
#include <thread>
#include <unistd.h>

#include "platform/process/preferences.h"
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

  // What the system log has got since the last time, as "<priority>text".
  Lines system_log() {
    const std::regex head(R"(>[A-Z][a-z]{2} [ \d]\d \d\d:\d\d:\d\d corvaned\[)" + std::to_string(getpid()) +
                          R"(\]: )");
    Lines lines;
    char line[256];
    for (ssize_t size; (size = recv(system_log_, line, sizeof line, MSG_DONTWAIT)) > 0;) {
      lines.push_back(std::regex_replace(std::string(line, static_cast<size_t>(size)), head, ">"));
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

  // The lines without their heads, the older file first, after one more line; with "<level>" where that is not 7.
  Lines disk_lines_after(std::string_view text) {
    write(text);
    const std::regex head(R"(^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z corvaned\[)" + std::to_string(getpid()) +
                          R"(\] (?:<7>|(<\d>)) CV: )");
    const std::string bytes = testing::read_file(logs_ + "/corvaned/corvaned.1.log") + testing::read_file(log_);
    EXPECT_EQ(bytes.back(), '\n');
    std::istringstream stream(bytes);
    Lines lines;
    for (std::string line; std::getline(stream, line);) lines.push_back(std::regex_replace(line, head, "$1"));
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
  EXPECT_EQ(system_log(), Lines{"<31>CV: not into the pipe"});
}

// The daemon hung where whoever reads the system log had stopped.
TEST_F(SystemLoggerTest, AFullSystemLogHoldsNothingUp) {
  for (int i = 0; i < 2000; ++i) write(std::to_string(i), LOG_NOTICE);
  EXPECT_EQ(disk_lines_after("on disk").back(), "on disk");
  const Lines first = system_log();
  EXPECT_TRUE(!first.empty() && first.size() < 2000 && first[0] == "<29>CV: 0") << first.size();
  write("read again", LOG_NOTICE);
  EXPECT_EQ(system_log(), Lines{"<29>CV: read again"});
  close(std::exchange(system_log_, socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)));
  write("nobody there", LOG_NOTICE);
  listen();
  write("another one", LOG_NOTICE);
  EXPECT_EQ(system_log(), Lines{"<29>CV: another one"});
}

TEST_F(SystemLoggerTest, MessageIsOneLine) {
  write("100% of %s %n\n", LOG_NOTICE);
  // Whatever a terminal would act on, or another reader take for a line's end.
  write("a\tb\r\nc\x1b[2J\x1f \x7e\x7f\xc2\x80\xc2\x9f\xc2\xa0 \xc2 \xe2\x80\xa7\xe2\x80\xa8\xe2\x80\xa9\n\n",
        LOG_INFO);
  EXPECT_EQ(
      disk_lines_after(std::string_view("\0", 1)),
      (Lines{"<5>100% of %s %n",
             "<6>a\\tb\\r\\nc\\x1b[2J\\x1f \x7e\\x7f\\x80\\x9f\xc2\xa0 \xef\xbf\xbd \xe2\x80\xa7\\u2028\\u2029\\n",
             "\\x00"}));
  EXPECT_EQ(system_log(), Lines{"<29>CV: 100% of %s %n"});
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
  const size_t note = cut[0].find(" [");
  EXPECT_EQ(note + std::stoul(cut[0].substr(note + 2)), giant.size() + 1);
  for (const std::string& line : cut)
    EXPECT_EQ(plist::String::create(line)->view(), line) << "cut within a character";
}

TEST_F(SystemLoggerTest, FolderGoesAndComesBack) {
  fs::remove(logs_);
  write("nowhere to go");
  EXPECT_FALSE(fs::exists(logs_)) << "only the last folder is the log's own";
  EXPECT_EQ(system_log(), Lines{"<31>CV: nowhere to go"});
  fs::create_directory(logs_);
  usleep(1'100'000);
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
  setrlimit(RLIMIT_FSIZE, &before);
  write("not tried");
  EXPECT_EQ(system_log(), (Lines{"<31>CV: refused", "<31>CV: not tried"}));
  usleep(1'100'000);
  EXPECT_EQ(disk_lines_after("again"), (Lines{"first", "again"}));
}

TEST_F(SystemLoggerTest, LinesOfTwoThreadsStayWhole) {
  write("opened");
  const auto write_many = [this] {
    for (int i = 0; i < 300; ++i) write("one of many", logger_.configured_level("Corvane") + 8);
  };
  std::thread other(write_many);
  write_many();
  other.join();
  const Lines lines = disk_lines_after("closed");
  EXPECT_EQ(std::count(lines.begin(), lines.end(), "one of many"), 600);
}

}  // namespace
}  // namespace corvane
