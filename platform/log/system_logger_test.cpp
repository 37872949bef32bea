#include "platform/log/system_logger.h"

#include <gtest/gtest.h>

#include <optional>
#include <regex>
#include <sys/socket.h>
#include <sys/stat.h>
#include <syslog.h>
#include <thread>
#include <unistd.h>

#include "platform/descriptor.h"
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

  void start_system_log() {
    const wire::SocketAddress address(root_ + "/log");
    unlink(address.path());
    system_log_.emplace(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    ASSERT_EQ(bind(system_log_->number(), address.get(), address.size()), 0);
  }

  // What the system log has got since the last time, as "<priority>text".
  Lines take_system_log() const {
    const std::regex head(R"(>[A-Z][a-z]{2} [ \d]\d \d\d:\d\d:\d\d corvaned\[)" + std::to_string(getpid()) +
                          R"(\]: )");
    Lines lines;
    char line[256];
    for (ssize_t size; (size = recv(system_log_->number(), line, sizeof line, MSG_DONTWAIT)) > 0;) {
      lines.push_back(std::regex_replace(std::string(line, static_cast<size_t>(size)), head, ">"));
    }
    return lines;
  }

  void write(std::string_view text, int level) {
    logger_.write(handle_, level, "CV", "%@", *plist::String::create(text));
  }

  // The lines on the disk, as "<level> CV: text".
  Lines disk_lines() const {
    const std::regex head(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z corvaned\[)" + std::to_string(getpid()) +
                          R"(\] <)");
    std::istringstream stream(testing::read_file(log_));
    Lines lines;
    for (std::string line; std::getline(stream, line);) lines.push_back(std::regex_replace(line, head, "<"));
    return lines;
  }

  int level_with_preference(const std::string& value) {
    testing::write_file(preferences_file_, "<plist><dict><key>Corvane</key>" + value + "</dict></plist>");
    return logger_.configured_level("Corvane");
  }

  const std::string root_ = testing::TestPlatform::fresh().root();
  const std::string preferences_file_ = root_ + "/private/var/mobile/Library/Preferences/com.norvane.logger.plist";
  const std::string log_ = root_ + "/var/mobile/Library/Logs/corvaned/corvaned.log";
  PreferenceFiles preferences_{root_};
  SystemLogger logger_{preferences_, false, root_ + "/log"};
  Logger::Handle* const handle_ = logger_.open("Corvane", 3);
  std::optional<Descriptor> system_log_;
};

TEST_F(SystemLoggerTest, TheLevelIsWhatTheFileSaysNow) {
  EXPECT_EQ(logger_.configured_level("Corvane"), Logger::no_level) << "no file";
  for (int i = 0; i < 50; ++i) {
    SCOPED_TRACE("file " + std::to_string(i) + " of one size, within one tick of the kernel's clock");
    ASSERT_EQ(level_with_preference("<integer>" + std::to_string(i % 8) + "</integer>"), i % 8);
  }
  for (const char* other : {"<string>3</string>", "<integer>-1</integer>", "<integer>8</integer>"}) {
    EXPECT_EQ(level_with_preference(other), Logger::no_level) << other;
  }
}

TEST_F(SystemLoggerTest, TheSystemLogGetsNoticesAndWhatTheDiskDoesNotTake) {
  for (const int level : {LOG_DEBUG, LOG_INFO, LOG_NOTICE, LOG_EMERG}) write("100% of %s\n", level);
  EXPECT_EQ(disk_lines(),
            (Lines{"<7> CV: 100% of %s", "<6> CV: 100% of %s", "<5> CV: 100% of %s", "<0> CV: 100% of %s"}));
  EXPECT_EQ(take_system_log(), (Lines{"<29>CV: 100% of %s", "<24>CV: 100% of %s"}));
  fs::remove(log_);
  ASSERT_EQ(mkfifo(log_.c_str(), 0644), 0);
  write("nobody reads the FIFO", LOG_DEBUG);
  EXPECT_EQ(take_system_log(), Lines{"<31>CV: nobody reads the FIFO"});
}

// The daemon hung where whoever reads the system log had stopped.
TEST_F(SystemLoggerTest, AFullSystemLogHoldsNothingUp) {
  for (int i = 0; i < 2000; ++i) write(std::to_string(i), LOG_NOTICE);
  EXPECT_EQ(disk_lines().back(), "<5> CV: 1999");
  EXPECT_LT(take_system_log().size(), 2000U);
  write("read again", LOG_NOTICE);
  EXPECT_EQ(take_system_log(), Lines{"<29>CV: read again"});
  system_log_.reset();
  write("nobody there", LOG_NOTICE);
  start_system_log();
  write("another one", LOG_NOTICE);
  EXPECT_EQ(take_system_log(), Lines{"<29>CV: another one"});
}

}  // namespace
}  // namespace corvane
