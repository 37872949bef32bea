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
using testing::TestPlatform;
using testing::write_file;

std::string plist_of(const std::string& value) { return "<plist version=\"1.0\">" + value + "</plist>"; }

std::string ask(DeviceProperties& properties, const char* name) {
  return plist::describe(properties.copy_answer(*plist::String::create(name)).get());
}

TEST(LinuxDeviceProperties, TakeTheVersionFromOsRelease) {
  const std::string root = TestPlatform::fresh().root();
  LinuxDeviceProperties properties(root);
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
  LinuxDeviceProperties properties(root);
  fs::create_directories(root + "/etc/corvaned");
  write_file(root + "/etc/os-release", "VERSION_ID=system");
  write_file(table, plist_of("<dict><key>ProductVersion</key><string>9.1</string></dict>"));
  EXPECT_EQ(ask(properties, "ProductVersion"), "9.1");
  write_file(table, plist_of("<string>no dictionary</string>"));
  EXPECT_EQ(ask(properties, "ProductVersion"), "system");
}

/// A profile's file, and what is reported meanwhile.
class SimulatedProfile : public ::testing::Test {
 protected:
  SimulatedProfile() {
    reports.clear();
    set_report_sink([](const char* line) noexcept { reports.emplace_back(line); });
  }
  ~SimulatedProfile() override { set_report_sink(nullptr); }
  void write(const std::string& value) { write_file(path_, plist_of(value)); }

  const std::string path_ = TestPlatform::fresh().root() + "/profile.plist";
  std::string fault_;
  static inline std::vector<std::string> reports;
};

TEST_F(SimulatedProfile, KeepsTheLastGoodVersionAndReportsABadOneOnce) {
  write("<dict><key>good</key><true/></dict>");
  const auto profile = Profile::open(path_, fault_);
  for (const std::string& bad : {plist_of("<true/>"), plist_of("<false/>"), std::string("<plist>\n<dict>\n")}) {
    reports.clear();
    write_file(path_, bad);
    for (int i = 0; i < 3; ++i) EXPECT_TRUE(profile->current()->get("good"));
    ASSERT_EQ(reports.size(), 1U) << bad;
    EXPECT_TRUE(reports[0].starts_with("profile " + path_ + ": ") && reports[0].find('\n') == std::string::npos);
  }
  write("<dict><key>better</key><true/></dict>");
  EXPECT_TRUE(profile->current()->get("better"));
}

TEST_F(SimulatedProfile, HasOnlyErrorsOfThirtyTwoBits) {
  const auto error_of = [this](const char* value) {
    write("<dict><key>Telephony</key><dict><key>Errors</key><dict><key>SIMIdentity</key><dict><key>Error</key>" +
          std::string(value) + "</dict></dict></dict></dict>");
    const auto device = SimulatedDevice::open(path_, fault_);
    device->telephony().connect(nullptr);  // this one reports a bad number, the next one no more
    plist::Ref<plist::Value> slot;
    return device->telephony().connect(nullptr)->copy(TelvoServerConnection::Query::sim_identity, slot).error;
  };
  EXPECT_EQ(error_of("<integer>-2147483648</integer>"), std::numeric_limits<int32_t>::min());
  EXPECT_TRUE(reports.empty());
  for (const char* bad : {"<integer>4294967296</integer>", "<integer>18446744073709551615</integer>", "<true/>"}) {
    EXPECT_EQ(error_of(bad), -1) << bad;
  }
  EXPECT_EQ(reports, std::vector(3, "profile " + path_ + ": Telephony.Errors.SIMIdentity.Error " +
                                        "is not a 32-bit integer and counts as -1"));
}

}  // namespace
}  // namespace corvane
