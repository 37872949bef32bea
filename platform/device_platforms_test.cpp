#include <gtest/gtest.h>

#include "platform/linux/linux_device_properties.h"
#include "platform/report.h"
#include "platform/simulated/profile.h"
#include "plist/describe.h"
#include "tests/support/test_platform.h"

namespace corvane {
namespace {

namespace fs = std::filesystem;
using testing::TestPlatform;
using testing::write_file;

std::string plist_of(const std::string& value) { return "<plist version=\"1.0\">" + value + "</plist>"; }

std::string ask(DeviceProperties& properties, const char* name) {
  return plist::describe(properties.copy_answer(*plist::String::create(name)).get());
}

TEST(LinuxDeviceProperties, TakeTheVersionFromOsRelease) {
  const std::string root = TestPlatform::fresh().root();
  LinuxDeviceProperties properties(root, root + "/sys");
  fs::create_directories(root + "/usr/lib");
  const auto version_of = [&](const std::string& file) {
    write_file(root + "/usr/lib/os-release", file);
    return ask(properties, "ProductVersion");
  };
  EXPECT_EQ(version_of("VERSION_ID=1\nVERSION_ID=\"12\"\nVERSION=\"12 (a)\"\nXVERSION_ID=3\nVERSION_ID 5"), "12");
  EXPECT_EQ(version_of("VERSION_ID='12 \\a'"), "12 \\a");
  EXPECT_EQ(version_of("#VERSION_ID=1\n\n  VERSION_ID=1\\2.5 # behind\r\n"), "12.5");
  EXPECT_EQ(version_of("VERSION_ID=\"a\\\"b\\$\\\\\\n\"\r\n"), "a\"b$\\\\n");
  EXPECT_EQ(version_of("VERSION_ID=\nNAME=x"), "(null)");
}

TEST(LinuxDeviceProperties, AreFirstThoseOfTheTable) {
  const std::string root = TestPlatform::fresh().root(), table = root + "/etc/corvaned/properties.plist";
  LinuxDeviceProperties properties(root, root + "/sys");
  fs::create_directories(root + "/etc/corvaned");
  write_file(root + "/etc/os-release", "VERSION_ID=system");
  write_file(table, plist_of("<dict><key>ProductVersion</key><string>9.1</string></dict>"));
  EXPECT_EQ(ask(properties, "ProductVersion"), "9.1");
  write_file(table, plist_of("<string>no dictionary</string>"));
  EXPECT_EQ(ask(properties, "ProductVersion"), "system");
}

std::vector<std::string> reports;

TEST(SimulatedProfile, KeepsTheLastGoodVersionAndReportsABadOneOnce) {
  set_report_sink([](const char* line) noexcept { reports.emplace_back(line); });
  const std::string path = TestPlatform::fresh().root() + "/profile.plist";
  write_file(path, plist_of("<dict><key>good</key><true/></dict>"));
  std::string fault;
  const auto profile = Profile::open(path, fault);
  for (const std::string& bad : {plist_of("<true/>"), plist_of("<false/>"), std::string("<plist>\n<dict>\n")}) {
    reports.clear();
    write_file(path, bad);
    for (int i = 0; i < 3; ++i) EXPECT_TRUE(profile->current()->get("good"));
    ASSERT_EQ(reports.size(), 1U) << bad;
    EXPECT_TRUE(reports[0].starts_with("profile " + path + ": ") && reports[0].find('\n') == std::string::npos);
  }
  write_file(path, plist_of("<dict><key>better</key><true/></dict>"));
  EXPECT_TRUE(profile->current()->get("better"));
  set_report_sink(nullptr);
}

}  // namespace
}  // namespace corvane
