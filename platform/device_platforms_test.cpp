#include <gtest/gtest.h>

#include <sys/stat.h>

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

void put(const std::string& path, std::string_view bytes) {
  fs::create_directories(fs::path(path).parent_path());
  write_file(path, bytes);
}

/// A Linux system with the files that the test puts below the root and into sysfs.
class LinuxProperties : public ::testing::Test {
 protected:
  std::string ask(const char* name) {
    return plist::describe(properties_.copy_answer(*plist::String::create(name)).get());
  }

  const std::string root_ = TestPlatform::fresh().root(), sys_ = root_ + "/sys";
  const std::string dmi_ = sys_ + "/class/dmi/id/", tree_ = sys_ + "/firmware/devicetree/base/";
  LinuxDeviceProperties properties_{root_, sys_};
};

TEST_F(LinuxProperties, TakeTheVersionFromOsRelease) {
  const auto version_of = [&](const std::string& file) {
    put(root_ + "/usr/lib/os-release", file);
    return ask("ProductVersion");
  };
  EXPECT_EQ(version_of("VERSION_ID=1\nVERSION_ID=\"12\"\nVERSION=\"12 (a)\"\nXVERSION_ID=3\nVERSION_ID 5"), "12");
  EXPECT_EQ(version_of("VERSION_ID='12 \\a'"), "12 \\a");
  EXPECT_EQ(version_of("#VERSION_ID=1\n\n  VERSION_ID=1\\2.5 # behind\r\n"), "12.5");
  EXPECT_EQ(version_of("VERSION_ID=\"a\\\"b\\$\\\\\\n\"\r\n"), "a\"b$\\\\n");
  EXPECT_EQ(version_of("VERSION_CODENAME=forky\nBUILD_ID=rolling\nIMAGE_VERSION=33\nVERSION_ID=12"), "12");
  EXPECT_EQ(version_of("VERSION_CODENAME=forky\nBUILD_ID=rolling\nIMAGE_VERSION=33"), "33");
  EXPECT_EQ(version_of("VERSION_CODENAME=forky\nBUILD_ID=rolling"), "rolling");
  EXPECT_EQ(version_of("VERSION_CODENAME=forky\nVERSION_ID="), "forky");
}

TEST_F(LinuxProperties, AreFirstThoseOfTheTable) {
  const std::string table = root_ + "/etc/corvaned/properties.plist";
  put(root_ + "/etc/os-release", "VERSION_ID=system");
  put(table, plist_of("<dict><key>ProductVersion</key><string>9.1</string><key>HasBaseband</key><true/></dict>"));
  EXPECT_EQ(ask("ProductVersion"), "9.1");
  EXPECT_EQ(ask("HasBaseband"), "true");
  put(table, plist_of("<string>no dictionary</string>"));
  EXPECT_EQ(ask("ProductVersion"), "system");
}

TEST_F(LinuxProperties, NameTheProductAsTheDeviceTreeDoesOrElseTheFirmware) {
  put(dmi_ + "board_name", "Board 7\n");
  put(dmi_ + "product_name", " Slate 3 \n");
  EXPECT_EQ(ask("ProductType"), "Slate 3");
  for (const char* placeholder : {"To be filled by O.E.M.\n", " DEFAULT STRING\t\n", "x.x\n", "00000\n", "\n"}) {
    put(dmi_ + "product_name", placeholder);
    EXPECT_EQ(ask("ProductType"), "Board 7") << "the product is called " << placeholder;
  }
  fs::remove(dmi_ + "product_name");
  mkfifo((dmi_ + "product_name").c_str(), 0644);
  EXPECT_EQ(ask("ProductType"), "Board 7") << "and nobody writes into the FIFO";
  put(dmi_ + "board_name", "None\n");
  EXPECT_EQ(ask("ProductType"), "(null)");
  put(tree_ + "compatible", std::string_view("acme,slate-3\0acme,soc\0", 22));
  EXPECT_EQ(ask("ProductType"), "acme,slate-3");
}

TEST_F(LinuxProperties, TellTheDeviceClassInTheWordsOfTheDeviceTree) {
  const auto class_of = [&](const std::string& chassis_type) {
    put(dmi_ + "chassis_type", chassis_type + "\n");
    return ask("DeviceClass");
  };
  EXPECT_EQ(class_of("10"), "laptop");
  EXPECT_EQ(class_of("11"), "handset");
  EXPECT_EQ(class_of("32"), "convertible");
  EXPECT_EQ(class_of("2"), "(null)") << "a chassis that the firmware calls unknown";
  put(tree_ + "chassis-type", std::string_view("watch\0", 6));
  EXPECT_EQ(ask("DeviceClass"), "watch");
}

TEST_F(LinuxProperties, HaveABasebandWhereTheKernelHasAWwanDevice) {
  const std::string interfaces = sys_ + "/class/net/", devices = sys_ + "/class/wwan/";
  put(interfaces + "wlan0/uevent", "DEVTYPE=wlan\nINTERFACE=DEVTYPE=wwan\n");
  fs::create_directories(devices);
  EXPECT_EQ(ask("HasBaseband"), "false");
  put(interfaces + "wwan0/uevent", "DEVTYPE=wwan\nINTERFACE=wwan0\n");
  EXPECT_EQ(ask("HasBaseband"), "true") << "a network interface";
  fs::remove_all(interfaces + "wwan0");
  fs::create_directories(devices + "wwan0");
  EXPECT_EQ(ask("HasBaseband"), "true") << "a device without a network interface";
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
