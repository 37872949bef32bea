#include "daemon/log/cv_log.h"

#include <gtest/gtest.h>

#include <cerrno>

#include "tests/support/test_platform.h"

namespace corvane {
namespace {

using testing::TestPlatform;
using Lines = std::vector<std::string>;

TEST(Log, ItsFirstLineOpensItAndItsCopyOnTheDisk) {
  TestPlatform& platform = TestPlatform::fresh();
  for (const char* line : {"one", "two"}) cv_log("first", 0, "%s", line);
  EXPECT_EQ(platform.take_texts(), (Lines{"first: one", "first: two"}));
  EXPECT_EQ(platform.handles_opened, 1u);
  EXPECT_EQ(platform.disk_copies,
            Lines{platform.root() + "/var/mobile/Library/Logs/corvaned/corvaned.log 2 65536"});
}

TEST(Log, AConfiguredLevelWinsOverTheFlagFromTheNextMessageOn) {
  TestPlatform& platform = TestPlatform::fresh();
  std::vector<int> levels;
  for (const int configured : {Logger::no_level, 3, Logger::no_level}) {
    platform.level = configured;
    cv_log("f", 0, "flag clear");
    cv_log("f", 1, "flag set");
    cv_log("f", 2, "flag set, with %s", "an argument");
    for (const TestPlatform::Line& line : platform.take_lines()) levels.push_back(line.level);
  }
  EXPECT_EQ(levels, (std::vector{7, 5, 5, 3, 3, 3, 7, 5, 5}));
}

TEST(Log, FormatsEveryConversionOnceAndLeavesErrnoAlone) {
  TestPlatform& platform = TestPlatform::fresh();
  errno = ENOENT;
  cv_log("f", 0, "%s is at 100%%", "/tmp/100%/%s%n");
  cv_log("f", 0, "%d %5u|%-4d|%03o %lx %lld %zu %.2f", -1, 2u, 3, 8u, 255ul, -4ll, sizeof(char), 1.5);
  cv_log("f", 0, "%@, %@", plist::String::create("50% \"as it is\""), plist::Boolean::yes());
  cv_log("f", 0, "[%s] [%@]", static_cast<const char*>(nullptr), static_cast<const plist::String*>(nullptr));
  EXPECT_EQ(errno, ENOENT);
  const Lines expected = {"f: /tmp/100%/%s%n is at 100%", "f: -1     2|3   |010 ff -4 1 1.50",
                          "f: 50% \"as it is\", true", "f: [(null)] [(null)]"};
  EXPECT_EQ(platform.take_texts(), expected);
}

}  // namespace
}  // namespace corvane
