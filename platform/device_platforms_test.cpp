#include <gtest/gtest.h>

#include "platform/linux/linux_device.h"
#include "platform/report.h"
#include "platform/simulated/profile.h"
#include "platform/simulated/simulated_device.h"
#include "plist/describe.h"
#include "tests/support/test_platform.h"

namespace corvane {
namespace {

namespace fs = std::filesystem;
using testing::write_file;

std::string file_of(const std::string& value) { return "<plist version=\"1.0\">" + value + "</plist>"; }

std::string ask(DeviceProperties& properties, const char* name) {
  return plist::describe(properties.copy_answer(*plist::String::create(name)).get());
}

TEST(DeviceProperties, AreWhatEitherDeviceHasNow) {
  const std::string root = testing::TestPlatform::fresh().root();
  const std::string profile_path = root + "/profile.plist";
  write_file(profile_path, file_of("<dict/>"));
  std::string fault;
  const auto profile = Profile::open(profile_path, fault);
  fs::create_directories(root + "/etc/corvaned");
  LinuxDeviceProperties linux_device(root);
  SimulatedDeviceProperties simulated_device(*profile);
  DeviceProperties* const devices[] = {&linux_device, &simulated_device};
  const auto set = [&](const std::string& value) {
    write_file(root + "/etc/corvaned/properties.plist", file_of(value));
    write_file(profile_path, file_of("<dict><key>Properties</key>" + value + "</dict>"));
  };
  for (const std::string version : {"9.1", "9.2", "9.3"}) {
    set("<dict><key>ProductVersion</key><string>" + version + "</string><key>HasBaseband</key><true/></dict>");
    for (DeviceProperties* device : devices) {
      EXPECT_EQ(ask(*device, "ProductVersion"), version);
      EXPECT_EQ(ask(*device, "HasBaseband") + ask(*device, "DeviceClass"), "true(null)");
    }
  }
  set("<string>ProductVersion</string>");
  for (DeviceProperties* device : devices) EXPECT_EQ(ask(*device, "ProductVersion"), "(null)");
}

TEST(LinuxDeviceProperties, VersionOfTheRunningSystem) {
  const std::string root = testing::TestPlatform::fresh().root();
  LinuxDeviceProperties properties(root);
  EXPECT_EQ(ask(properties, "ProductVersion"), "(null)");
  for (const char* folder : {"/usr/lib", "/etc"}) fs::create_directories(root + folder);
  write_file(root + "/usr/lib/os-release", "VERSION_ID=1\n");
  EXPECT_EQ(ask(properties, "ProductVersion"), "1");

  const std::pair<const char*, const char*> cases[] = {
      {"NAME=x\nVERSION_ID=1\nVERSION_ID=\"12\"\nVERSION=\"12 (a)\"\n", "12"},
      {"VERSION_ID='12 \\a'", "12 \\a"},
      {"#VERSION_ID=1\n\n  VERSION_ID=1\\2.5 # behind\r\n", "12.5"},
      {"VERSION_ID=\"a\\\"b\\$\\\\\\n\"\r\nXVERSION_ID=3\nVERSION_ID_X=4\nVERSION_ID 5\n", "a\"b$\\\\n"},
      {"VERSION_ID=\"open", "open"},
      {"VERSION_ID=\nNAME=x", "(null)"},
  };
  for (const auto& [file, version] : cases) {
    write_file(root + "/etc/os-release", file);
    EXPECT_EQ(ask(properties, "ProductVersion"), version) << file;
  }
}

TEST(LinuxDevice, HasWhatTheRunningKernelKnows) {
  EXPECT_EQ(first_string({"maker,board-2\0maker,board\0", 26}), "maker,board-2");
  EXPECT_EQ(first_string("Board 2\n"), "Board 2");
  LinuxDeviceProperties properties(testing::TestPlatform::fresh().root());
  LinuxHardwareRegistry registry;
  const bool has_tree = fs::exists("/sys/firmware/devicetree/base/compatible");
  EXPECT_EQ(registry.copy_property("HWTree:", "compatible") ? true : false, has_tree);
  EXPECT_FALSE(registry.has_node("HWTree:/none") || registry.copy_property("Other:", "compatible"));
  const bool has_name = has_tree || testing::read_file("/sys/class/dmi/id/product_name").size() > 1;
  EXPECT_EQ(ask(properties, "ProductType") != "(null)", has_name);
}

std::vector<std::string> reports;

TEST(Profile, BadEditKeepsTheLastGoodOneAndIsReportedOnce) {
  const std::string path = testing::TestPlatform::fresh().root() + "/profile.plist";
  set_report_sink([](const char* line) noexcept { reports.emplace_back(line); });
  std::string fault;
  EXPECT_FALSE(Profile::open(path, fault));
  EXPECT_EQ(fault, "profile " + path + ": No such file or directory");
  write_file(path, file_of("<dict><key>Registry</key><dict><key>a</key><dict><key>class</key><data/></dict>"
                           "<key>b</key><string>class</string></dict></dict>"));
  const auto profile = Profile::open(path, fault);
  SimulatedHardwareRegistry registry(*profile);
  EXPECT_FALSE(registry.has_node("b") || registry.copy_property("b", "class") || registry.copy_property("a", "b"));

  for (const std::string& bad : {file_of("<true/>"), file_of("<false/>"), std::string("<plist>\n<dict>\n")}) {
    reports.clear();
    write_file(path, bad);
    for (int i = 0; i < 3; ++i) EXPECT_TRUE(registry.has_node("a") && registry.copy_property("a", "class"));
    ASSERT_EQ(reports.size(), 1U);
    EXPECT_TRUE(reports[0].starts_with("profile " + path + ": ") && reports[0].find('\n') == std::string::npos);
  }
  write_file(path, file_of("<dict><key>B</key><true/></dict>"));
  EXPECT_TRUE(profile->current()->get("B"));
  fs::remove(path);
  EXPECT_TRUE(profile->current()->get("B"));
  EXPECT_EQ(reports.size(), 2U);
  set_report_sink(nullptr);
}

}  // namespace
}  // namespace corvane
