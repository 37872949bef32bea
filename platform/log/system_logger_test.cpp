#include "platform/log/system_logger.h"

#include <gtest/gtest.h>

#include <regex>
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

class SystemLoggerTest : public ::testing::Test {
 protected:
  SystemLoggerTest() {
    logger_.enable_disk_copy(handle_, log_.c_str(), 2, 65536);
    start_system_log();
  }
  ~SystemLoggerTest() override { stop_system_log(); }

  void start_system_log() {
    const wire::SocketAddress address(root_ + "/log");
    unlink(address.path());
    system_log_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ASSERT_EQ(bind(system_log_, address.get(), address.size()), 0);
  }
  void stop_system_log() const { close(system_log_); }

  // What the system log has got since the last time, as "<priority>text".
  Lines take_system_log() const {
    const std::regex head(R"(>[A-Z][a-z]{2} [ \d]\d \d\d:\d\d:\d\d corvaned\[)" + std::to_string(getpid()) +
                          R"(\]: )");
    Lines lines;
    char line[256];
    for (ssize_t size; (size = recv(system_log_, line, sizeof line, MSG_DONTWAIT)) > 0;) {
      lines.push_back(std::regex_replace(std::string(line, static_cast<size_t>(size)), head, ">"));
    }
    return lines;
  }

  void write(std::string_view text, int level) {
    logger_.write(handle_, level, "CV", "%@", *plist::String::create(text));
  }

  // The disk's lines as "<level> CV: text".
  Lines disk_lines() const {
    std::istringstream stream(testing::read_file(log_));
    Lines lines;
    for (std::string line; std::getline(stream, line);) lines.push_back(line.substr(line.find('<')));
    return lines;
  }

  int level_with_preference(const std::string& value) {
    testing::write_file(preferences_file_, "<plist><dict><key>Corvane</key>" + value + "</dict></plist>");
    return logger_.configured_level("Corvane");
  }

  const std::string root_ = testing::TestPlatform::fresh().root();
  const std::string preferences_file_ = root_ + "/private/var/mobile/Library/Preferences/com.norvane.logger.plist";
  const std::string folder_ = root_ + "/var/mobile/Library/Logs/corvaned";
  const std::string log_ = folder_ + "/corvaned.log";
  PreferenceFiles preferences_{root_};
  SystemLogger logger_{preferences_, false, root_ + "/log"};
  Logger::Handle* const handle_ = logger_.open("Corvane", 3);
  int system_log_ = -1;
};

TEST_F(SystemLoggerTest, TheLevelIsWhatTheFileSaysNow) {
  EXPECT_EQ(logger_.configured_level("Corvane"), Logger::no_level) << "no file";
  for (int i = 0; i < 50; ++i) {
    SCOPED_TRACE("files of one size, written within one tick of the kernel's clock: " + std::to_string(i));
    ASSERT_EQ(level_with_preference("<integer>" + std::to_string(i % 8) + "</integer>"), i % 8);
  }
  EXPECT_EQ(logger_.configured_level("Other"), Logger::no_level);
  for (const char* other : {"<string>3</string>", "<true/>", "<real>3</real>", "<integer>-1</integer>",
                            "<integer>8</integer>", "<integer>18446744073709551615</integer>", "<integer>3"}) {
    EXPECT_EQ(level_with_preference(other), Logger::no_level) << other;
  }
  fs::remove(preferences_file_);
  ASSERT_EQ(mkfifo(preferences_file_.c_str(), 0644), 0);
  EXPECT_EQ(logger_.configured_level("Corvane"), Logger::no_level) << "a FIFO is not waited for";
}

TEST_F(SystemLoggerTest, TheDiskGetsEveryLineAndTheSystemLogThoseOfNoticeAndAbove) {
  for (const int level : {LOG_DEBUG, LOG_INFO, LOG_NOTICE, LOG_EMERG}) write("100% of %s\n", level);
  EXPECT_EQ(disk_lines(),
            (Lines{"<7> CV: 100% of %s", "<6> CV: 100% of %s", "<5> CV: 100% of %s", "<0> CV: 100% of %s"}));
  EXPECT_EQ(take_system_log(), (Lines{"<29>CV: 100% of %s", "<24>CV: 100% of %s"}));
}

TEST_F(SystemLoggerTest, WhatTheDiskDoesNotTakeGoesToTheSystemLog) {
  fs::create_directory(folder_);
  ASSERT_EQ(mkfifo(log_.c_str(), 0644), 0);
  write("nobody reads the FIFO", LOG_DEBUG);
  EXPECT_EQ(take_system_log(), Lines{"<31>CV: nobody reads the FIFO"});
}

// The daemon hung where whoever reads the system log had stopped.
TEST_F(SystemLoggerTest, AFullSystemLogHoldsNothingUp) {
  constexpr size_t too_many = 2000;
  for (size_t i = 0; i < too_many; ++i) write(std::to_string(i), LOG_NOTICE);
  EXPECT_EQ(disk_lines().back(), "<5> CV: 1999");
  const Lines taken = take_system_log();
  EXPECT_TRUE(!taken.empty() && taken.size() < too_many) << taken.size();

  write("read again", LOG_NOTICE);
  EXPECT_EQ(take_system_log(), Lines{"<29>CV: read again"});
  stop_system_log();
  write("nobody there", LOG_NOTICE);
  start_system_log();
  write("another one", LOG_NOTICE);
  EXPECT_EQ(take_system_log(), Lines{"<29>CV: another one"});
}

TEST_F(SystemLoggerTest, LinesOfTwoThreadsStayWhole) {
  const auto write_many = [this] {
    for (int i = 0; i < 300; ++i) write("one of many", LOG_DEBUG);
  };
  std::thread other(write_many);
  write_many();
  other.join();
  EXPECT_EQ(disk_lines(), Lines(600, "<7> CV: one of many"));
}

}  // namespace
}  // namespace corvane
