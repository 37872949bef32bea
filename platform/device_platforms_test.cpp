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

TEST(LinuxDeviceProperties, AreThoseOfTheirFileOrOfTheRunningSystem) {
  const std::string root = testing::TestPlatform::fresh().root(), table = root + "/etc/corvaned/properties.plist";
  LinuxDeviceProperties properties(root);
  for (const char* folder : {"/usr/lib", "/etc/corvaned"}) fs::create_directories(root + folder);
  write_file(root + "/usr/lib/os-release", "VERSION_ID=1\n");
  EXPECT_EQ(ask(properties, "ProductVersion"), "1");
  const std::pair<const char*, const char*> cases[] = {
      {"NAME=x\nVERSION_ID=1\nVERSION_ID=\"12\"\nVERSION=\"12 (a)\"\n", "12"},
      {"VERSION_ID='12 \\a'", "12 \\a"},
      {"#VERSION_ID=1\n\n  VERSION_ID=1\\2.5 # behind\r\n", "12.5"},
      {"VERSION_ID=\"a\\\"b\\$\\\\\\n\"\r\nXVERSION_ID=3\nVERSION_ID_X=4\nVERSION_ID 5\n", "a\"b$\\\\n"},
      {"VERSION_ID=\"open", "open"},
      {"VERSION_ID=\nNAME=x", "(null)"}};
  for (const auto& [file, version] : cases) {
    write_file(root + "/etc/os-release", file);
    EXPECT_EQ(ask(properties, "ProductVersion"), version) << file;
  }
  for (const std::string version : {"9.1", "9.2"}) {
    write_file(table, file_of("<dict><key>ProductVersion</key><string>" + version + "</string></dict>"));
    EXPECT_EQ(ask(properties, "ProductVersion") + ask(properties, "DeviceClass"), version + "(null)");
  }
  write_file(table, file_of("<string>ProductVersion</string>"));
  EXPECT_EQ(ask(properties, "ProductVersion"), "(null)");
}

TEST(LinuxDevice, HasWhatTheRunningKernelKnows) {
  EXPECT_EQ(first_string({"maker,board-2\0maker,board\0", 26}), "maker,board-2");
  EXPECT_EQ(first_string("Board 2\n"), "Board 2");
  LinuxDeviceProperties properties(testing::TestPlatform::fresh().root());
  LinuxHardwareRegistry registry;
  const bool has_tree = fs::exists("/sys/firmware/devicetree/base/compatible");
  EXPECT_EQ(registry.copy_property("HWTree:", "compatible") ? true : false, has_tree);
  EXPECT_FALSE(registry.has_node("HWTree:/none") || registry.copy_property("Other:", "compatible"));
  EXPECT_EQ(ask(properties, "ProductType") != "(null)",
            has_tree || testing::read_file("/sys/class/dmi/id/product_name").size() > 1);
}

std::vector<std::string> reports;

TEST(Profile, BadEditKeepsTheLastGoodOneAndIsReportedOnce) {
  const std::string path = testing::TestPlatform::fresh().root() + "/profile.plist";
  write_file(path, file_of("<dict><key>Registry</key><dict><key>a</key><dict><key>class</key><data/></dict>"
                           "<key>b</key><string>class</string></dict><key>Properties</key><string/></dict>"));
  std::string fault;
  const auto profile = Profile::open(path, fault);
  SimulatedHardwareRegistry registry(*profile);
  EXPECT_FALSE(SimulatedDeviceProperties(*profile).copy_answer(*plist::String::create("ProductVersion")));
  EXPECT_FALSE(registry.has_node("b") || registry.copy_property("b", "class") || registry.copy_property("a", "b"));
  set_report_sink([](const char* line) noexcept { reports.emplace_back(line); });
  for (const std::string& bad :
       {file_of("<true/>"), file_of("<false/>"), std::string("<plist>\n<dict>\n"), std::string()}) {
    reports.clear();
    fs::remove(path);
    if (!bad.empty()) write_file(path, bad);
    for (int i = 0; i < 3; ++i) EXPECT_TRUE(registry.has_node("a") && registry.copy_property("a", "class"));
    ASSERT_EQ(reports.size(), 1U);
    EXPECT_TRUE(reports[0].starts_with("profile " + path + ": ") && reports[0].find('\n') == std::string::npos);
  }
  write_file(path, file_of("<dict><key>B</key><true/></dict>"));
  EXPECT_TRUE(profile->current()->get("B"));
}

}  // namespace
}  // namespace corvane
