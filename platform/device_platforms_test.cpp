#include <gtest/gtest.h>

#include <filesystem>

#include "platform/linux/linux_device.h"
#include "platform/report.h"
#include "platform/simulated/profile.h"
#include "platform/simulated/simulated_device.h"
#include "tests/support/test_platform.h"

namespace corvane {
namespace {

namespace fs = std::filesystem;
using testing::write_file;

std::string dictionary_of(const std::string& entries) { return "<dict>" + entries + "</dict>"; }
std::string file_of(const std::string& value) { return "<plist version=\"1.0\">" + value + "</plist>"; }

plist::Ref<plist::Value> ask(DeviceProperties& properties, const char* name) {
  return properties.copy_answer(*plist::String::create(name));
}

std::string ask_text(DeviceProperties& properties, const char* name) {
  const auto answer = ask(properties, name);
  const auto* const string = plist::cast<plist::String>(answer.get());
  return string == nullptr ? "(none)" : std::string(string->view());
}

enum class DeviceKind { linux_system, simulated };

class DevicePlatformTest : public ::testing::TestWithParam<DeviceKind> {
 protected:
  DevicePlatformTest() {
    const std::string root = testing::TestPlatform::fresh().root();
    fs::create_directories(root + "/etc/corvaned");
    path_ = root + "/etc/corvaned/properties.plist";
    set_properties("<dict/>");
    if (GetParam() == DeviceKind::linux_system) {
      device_ = std::make_unique<LinuxDeviceProperties>(root);
    } else {
      std::string fault;
      profile_ = Profile::open(path_, fault);
      device_ = std::make_unique<SimulatedDeviceProperties>(*profile_);
    }
  }

  void set_properties(const std::string& value) {
    const bool nested = GetParam() == DeviceKind::simulated;
    write_file(path_, file_of(nested ? dictionary_of("<key>Properties</key>" + value) : value));
  }

  std::string path_;
  std::unique_ptr<Profile> profile_;
  std::unique_ptr<DeviceProperties> device_;
};

TEST_P(DevicePlatformTest, AnswersWhatTheDeviceHasNow) {
  EXPECT_FALSE(ask(*device_, "ProductVersion"));
  for (const std::string version : {"9.1", "9.2", "9.3"}) {
    set_properties(dictionary_of("<key>ProductVersion</key><string>" + version + "</string>" +
                                 "<key>HasBaseband</key><true/><key>Sizes</key><array/>" +
                                 "<key>ProductType</key><string>A</string>"));
    EXPECT_EQ(ask_text(*device_, "ProductVersion"), version);
    EXPECT_EQ(ask_text(*device_, "ProductType"), "A");
    EXPECT_EQ(ask(*device_, "HasBaseband").get(), plist::Boolean::yes());
    EXPECT_NE(plist::cast<plist::Array>(ask(*device_, "Sizes").get()), nullptr);
    EXPECT_FALSE(ask(*device_, "DeviceClass"));
  }
  set_properties("<string>ProductVersion</string>");
  EXPECT_FALSE(ask(*device_, "ProductVersion"));
}

INSTANTIATE_TEST_SUITE_P(BothDevices, DevicePlatformTest,
                         ::testing::Values(DeviceKind::linux_system, DeviceKind::simulated));

TEST(LinuxDeviceProperties, VersionOfTheRunningSystem) {
  const std::string root = testing::TestPlatform::fresh().root();
  LinuxDeviceProperties properties(root);
  EXPECT_FALSE(ask(properties, "ProductVersion"));
  fs::create_directories(root + "/usr/lib");
  fs::create_directories(root + "/etc");
  write_file(root + "/usr/lib/os-release", "VERSION_ID=1\n");
  EXPECT_EQ(ask_text(properties, "ProductVersion"), "1");

  const std::pair<const char*, const char*> cases[] = {
      {"NAME=x\nVERSION_ID=\"12\"\nVERSION=\"12 (a)\"\n", "12"},
      {"VERSION_ID='12 \\a'", "12 \\a"},
      {"#VERSION_ID=1\n\n  VERSION_ID=1\\2.5 # behind\r\n", "12.5"},
      {"VERSION_ID=\"a\\\"b\\$\\\\\\n\"\r\nXVERSION_ID=3\nVERSION_ID_X=4\nVERSION_ID 5\n", "a\"b$\\\\n"},
      {"VERSION_ID=1\nVERSION_ID=2\n", "2"},
      {"VERSION_ID=\"open", "open"},
      {"VERSION_ID=\nNAME=x", "(none)"},
  };
  for (const auto& [file, version] : cases) {
    write_file(root + "/etc/os-release", file);
    EXPECT_EQ(ask_text(properties, "ProductVersion"), version) << file;
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
  EXPECT_EQ(ask(properties, "ProductType") ? true : false, has_name);
}

TEST(SimulatedHardwareRegistry, HasTheNodesOfTheProfile) {
  const std::string path = testing::TestPlatform::fresh().root() + "/profile.plist";
  write_file(path, file_of("<dict><key>Registry</key><dict><key>a</key><dict><key>class</key><data/></dict>"
                           "<key>b</key><string>class</string></dict></dict>"));
  std::string fault;
  const auto profile = Profile::open(path, fault);
  SimulatedHardwareRegistry registry(*profile);
  EXPECT_TRUE(registry.has_node("a") && registry.copy_property("a", "class"));
  EXPECT_FALSE(registry.has_node("b") || registry.copy_property("b", "class") || registry.copy_property("a", "b"));
}

std::vector<std::string> reports;

TEST(Profile, BadEditKeepsTheLastGoodOneAndIsReportedOnce) {
  const std::string path = testing::TestPlatform::fresh().root() + "/profile.plist";
  set_report_sink([](const std::string& line) { reports.push_back(line); });
  std::string fault;
  EXPECT_FALSE(Profile::open(path, fault));
  EXPECT_EQ(fault, "profile " + path + ": No such file or directory");
  write_file(path, file_of(dictionary_of("<key>A</key><true/>")));
  const auto profile = Profile::open(path, fault);
  ASSERT_TRUE(profile);

  for (const std::string& bad : {file_of("<true/>"), file_of("<false/>"), std::string("<plist>\n<dict>\n")}) {
    reports.clear();
    write_file(path, bad);
    for (int i = 0; i < 3; ++i) EXPECT_TRUE(profile->current()->get("A"));
    ASSERT_EQ(reports.size(), 1U);
    EXPECT_TRUE(reports[0].starts_with("profile " + path + ": ") && reports[0].find('\n') == std::string::npos);
  }
  write_file(path, file_of(dictionary_of("<key>B</key><true/>")));
  EXPECT_TRUE(profile->current()->get("B"));
  EXPECT_EQ(reports.size(), 1U);
  fs::remove(path);
  EXPECT_TRUE(profile->current()->get("B"));
  EXPECT_EQ(reports.size(), 2U);
  set_report_sink(nullptr);
}

}  // namespace
}  // namespace corvane
