#include "support/entitlements.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <signal.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

#include "platform/linux/linux_code_signing.h"
#include "platform/simulated/simulated_device.h"
#include "plist/describe.h"
#include "plist/entitlements_blob.h"
#include "support/clock.h"
#include "support/random_challenge.h"
#include "tests/support/test_platform.h"
#include "tools/entitlements.h"
#include "tools/files.h"

namespace {

bool reads_are_short = false;

}  // namespace

extern "C" ssize_t read(int descriptor, void* buffer, size_t size) {
  return syscall(SYS_read, descriptor, buffer, reads_are_short ? size / 2 : size);
}

namespace corvane {
namespace {

namespace fs = std::filesystem;
using testing::TestPlatform;
using testing::write_file;
using Lines = std::vector<std::string>;

std::string plist_of(const std::string& value) { return "<plist version=\"1.0\">" + value + "</plist>"; }
const std::string dictionary = "<dict><key>radio</key><true/></dict>", granted = plist_of(dictionary);

std::string entitlements_of(int32_t pid) { return plist::describe(copy_entitlements_for_pid(pid).get()); }

TEST(Entitlements, OfABlobAreItsDictionaryOrNothingAndAReason) {
  TestPlatform& platform = TestPlatform::fresh();
  const std::string whole = plist::make_entitlements_blob(granted);
  const std::tuple<std::string, int, std::string, Lines> cases[] = {
      {"", 0, "(null)", {}},
      {"", ESRCH, "(null)", {"copy_entitlements_for_pid: sigq1(7): No such process\n"}},
      {plist::make_entitlements_blob(""), 0, "(null)", {}},
      {whole, 0, "{\"radio\": true}", {}},
      {plist::make_entitlements_blob(plist_of("<array/>")), 0, "(null)", {}},
      {"\1\2\3\4" + whole.substr(4), 0, "(null)", {"copy_entitlements_for_pid: bad magic 0x04030201\n"}},
      {whole.substr(0, whole.size() - 1),
       0,
       "(null)",
       {"copy_entitlements_for_pid: sigq1(7): Invalid argument\n"}},
  };
  for (const auto& [blob, error, entitlements, reasons] : cases) {
    platform.entitlements_blob = blob;
    platform.entitlements_error = error;
    EXPECT_EQ(entitlements_of(7), entitlements) << blob;
    EXPECT_EQ(platform.take_texts(), reasons) << blob;
  }
}

TEST(Entitlements, OnASimulatedDeviceAreTheProfiles) {
  const std::string path = TestPlatform::fresh().root() + "/profile.plist";
  write_file(path, plist_of("<dict><key>Entitlements</key><dict><key>12</key>" + dictionary + "</dict></dict>"));
  std::string fault, none;
  const auto device = SimulatedDevice::open(path, fault);
  ASSERT_EQ(device->code_signing().copy_entitlements_blob(12, TestPlatform::installed().entitlements_blob), 0);
  EXPECT_EQ(entitlements_of(12), "{\"radio\": true}");
  EXPECT_EQ(device->code_signing().copy_entitlements_blob(1, none), 0);
  EXPECT_EQ(none, "");
}

TEST(Entitlements, OnLinuxAreThoseOfTheExecutableThatRootAloneCanWrite) {
  const std::string root = TestPlatform::fresh().root(), executable = root + "/sleep";
  const std::string property_list = root + "/entitlements.plist";
  fs::copy_file("/bin/sleep", executable);
  const auto sign = [&](const std::string& text) -> std::string {
    write_file(property_list, text);
    try {
      tools::sign_executable(executable, property_list);
      return "";
    } catch (const tools::FileFault& fault) {
      return fault.what();
    }
  };
  LinuxCodeSigning linux_code_signing;
  TestPlatform& platform = TestPlatform::installed();
  const auto seen = [&](pid_t pid) {
    platform.entitlements_blob.clear();
    platform.entitlements_error = linux_code_signing.copy_entitlements_blob(pid, platform.entitlements_blob);
    return entitlements_of(pid) + " " + std::to_string(platform.entitlements_error);
  };
  EXPECT_EQ(seen(getpid()), "(null) 0");
  EXPECT_EQ(seen(std::numeric_limits<int32_t>::max()), "(null) " + std::to_string(ESRCH));

  EXPECT_NE(sign(plist_of("<array/>")).find("a dictionary in an XML"), std::string::npos);
  EXPECT_NE(sign(granted + std::string(64 * 1024, ' ')).find("longer than 65528 bytes"), std::string::npos);
  fs::permissions(executable, fs::perms::others_write, fs::perm_options::add);
  EXPECT_NE(sign(granted).find("only a file that belongs to root"), std::string::npos);
  fs::permissions(executable, fs::perms::others_write, fs::perm_options::remove);
  if (const std::string fault = sign(granted); !fault.empty()) GTEST_SKIP() << "this machine says: " << fault;

  char name[] = "sleep", seconds[] = "10";
  char* arguments[] = {name, seconds, nullptr};
  pid_t pid = -1;
  ASSERT_EQ(posix_spawn(&pid, executable.c_str(), nullptr, nullptr, arguments, environ), 0);
  const std::string moved = executable + ".moved";
  fs::rename(executable, moved);
  EXPECT_EQ(seen(pid), "{\"radio\": true} 0");
  // Whoever could have written the attribute's file could have written the attribute's words.
  for (const auto others : {fs::perms::group_write, fs::perms::others_write}) {
    fs::permissions(moved, others, fs::perm_options::add);
    EXPECT_EQ(seen(pid), "(null) 0");
    fs::permissions(moved, others, fs::perm_options::remove);
  }
  ASSERT_EQ(chown(moved.c_str(), 1, 0), 0);
  EXPECT_EQ(seen(pid), "(null) 0");
  ASSERT_EQ(chown(moved.c_str(), 0, 0), 0);
  EXPECT_EQ(seen(pid), "{\"radio\": true} 0");
  ASSERT_EQ(setxattr(moved.c_str(), plist::entitlements_attribute, "", 0, 0), 0);
  EXPECT_EQ(seen(pid), "(null) " + std::to_string(EINVAL));
  kill(pid, SIGKILL);
  waitpid(pid, nullptr, 0);
}

TEST(RandomChallenge, IsAsLongAsAskedAndNeverTheSame) {
  TestPlatform::fresh();
  const auto one = create_random_challenge(32), other = create_random_challenge(32);
  EXPECT_TRUE(one->bytes().size() == 32 && other->bytes().size() == 32 && one->bytes() != other->bytes());
  EXPECT_FALSE(create_random_challenge(SIZE_MAX));
  reads_are_short = true;
  EXPECT_FALSE(create_random_challenge(32));
  reads_are_short = false;
  EXPECT_EQ(TestPlatform::installed().take_texts(),
            Lines{"create_random_challenge: failed to read 32 random bytes"});
}

TEST(Clock, CountsWholeSeconds) {
  uint64_t& ticks = TestPlatform::fresh().ticks_now;
  ticks = 23'999'999;
  EXPECT_EQ(monotonic_seconds(), 0u);
  ticks = uint64_t{24'000'000} * 1'000'000'000;
  EXPECT_EQ(monotonic_seconds(), 1'000'000'000u);
}

}  // namespace
}  // namespace corvane
