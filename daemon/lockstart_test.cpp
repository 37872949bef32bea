#include "daemon/lockstart.h"

#include <gtest/gtest.h>

#include "tests/support/test_platform.h"

namespace corvane {
namespace {

namespace fs = std::filesystem;

constexpr char directory[] = "/private/var/mobile/Library/cvd";

TEST(Lockstart, CreatesTheStateDirectoryForItsOwnerOnly) {
  testing::TestPlatform::fresh();
  const DataArk ark = lockstart_local();
  EXPECT_EQ(data_ark_dirty_count(ark.get()), 0u);
  EXPECT_EQ(fs::status(system_path(directory)).permissions(), fs::perms(0700));
}

TEST(Lockstart, TakesAnExistingDirectoryFromOthersAndStoresItsArk) {
  testing::TestPlatform::fresh();
  fs::create_directory(system_path(directory));
  fs::permissions(system_path(directory), fs::perms(0755));
  const std::string file = system_path(directory) + "/data_ark.plist";
  testing::write_file(file, "<plist><dict><key>-Key</key><true/></dict></plist>");
  const DataArk ark = lockstart_local();
  EXPECT_EQ(fs::status(system_path(directory)).permissions(), fs::perms(0700));
  EXPECT_TRUE(data_ark_exists(ark.get(), nullptr, plist::String::create("Key").get()));
  EXPECT_TRUE(testing::read_file(file).starts_with("bplist00")) << "stores are binary";
}

}  // namespace
}  // namespace corvane
