#include "daemon/log.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <thread>

#include "tests/support/test_platform.h"

namespace corvane {
namespace {

using testing::TestPlatform;

// Stands first: no later test in this process can be the one whose first calls race.
TEST(Log, ConcurrentFirstCallsShareOneHandle) {
  TestPlatform& platform = TestPlatform::fresh();
  constexpr int thread_count = 8;
  std::atomic<int> waiting = thread_count;
  std::vector<std::thread> threads;
  for (int i = 0; i < thread_count; ++i) {
    threads.emplace_back([&] {
      --waiting;
      while (waiting != 0) std::this_thread::yield();
      cv_log("first", 0, "call");
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(platform.take_texts(), std::vector<std::string>(thread_count, "first: call"));
  EXPECT_EQ(platform.handles_opened, 1u);
  EXPECT_EQ(platform.disk_copies,
            std::vector{platform.root() + "/var/mobile/Library/Logs/corvaned/corvaned.log 2 65536"});
}

TEST(Log, AConfiguredLevelWinsOverTheFlagFromTheNextMessageOn) {
  TestPlatform& platform = TestPlatform::fresh();
  for (const int level : {Logger::no_level, 3, Logger::no_level}) {
    platform.level = level;
    cv_log("f", 1, "flag set");
    cv_log("f", 0, "flag clear");
  }
  std::vector<int> levels;
  for (const TestPlatform::Line& line : platform.take_lines()) levels.push_back(line.level);
  EXPECT_EQ(levels, (std::vector{5, 7, 3, 3, 5, 7}));
}

TEST(Log, FormatsEveryConversionOnceAndLeavesErrnoAlone) {
  TestPlatform& platform = TestPlatform::fresh();
  const auto dictionary = plist::MutableDictionary::create();
  dictionary->set("Key", plist::Number::create_int32(1));
  const plist::String* no_object = nullptr;
  const char* no_text = nullptr;
  const std::string longer(100000, 'x');

  errno = ENOENT;
  cv_log("f", 0, "%s is at 100%%", "/tmp/100%/%s%n");
  cv_log("f", 0, "[%s] [%@]", no_text, no_object);
  cv_log("f", 0, "%@, %@", plist::String::create("50% \"as it is\""), dictionary);
  cv_log("f", 0, "%d %5u|%-4d|%03o %lx %lld %zu %.2f", -1, 2u, 3, 8u, 255ul, -4ll, sizeof(char), 1.5);
  cv_log("f", 0, "%s", longer.c_str());
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(platform.take_texts(),
            (std::vector<std::string>{"f: /tmp/100%/%s%n is at 100%", "f: [(null)] [(null)]",
                                      "f: 50% \"as it is\", {\"Key\": 1}", "f: -1     2|3   |010 ff -4 1 1.50",
                                      "f: " + longer}));
}

TEST(LogDeathTest, ARefusedHandleDropsEveryLine) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const auto log_without_handle = [] {
    TestPlatform& platform = TestPlatform::fresh();
    platform.refuse_log_handle = true;
    cv_log("f", 1, "dropped");
    cv_log("f", 1, "dropped");
    const bool dropped = platform.take_lines().empty() && platform.disk_copies.empty();
    std::exit(dropped && platform.handles_opened == 1 ? 0 : 1);
  };
  EXPECT_EXIT(log_without_handle(), ::testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace corvane
