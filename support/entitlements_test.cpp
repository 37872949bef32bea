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
const std::string granted = plist_of("<dict><key>radio</key><true/></dict>");

std::string entitlements_of(int32_t pid) { return plist::describe(copy_entitlements_for_pid(pid).get()); }

TEST(Entitlements, OfABlobAreItsDictionaryOrNothingAndAReason) {
  TestPlatform& platform = TestPlatform::fresh();
  const std::string whole = plist::make_entitlements_blob(granted);
  const auto with_length = [&](const char* length) { return whole.substr(0, 4) + length + whole.substr(8); };
  const std::string forged = "sigq1(7): Invalid argument\n";
  const std::tuple<std::string, int, std::string, Lines> cases[] = {
      {"", 0, "(null)", {}},
      {"", ESRCH, "(null)", {"sigq1(7): No such process\n"}},
      {plist::make_entitlements_blob(""), 0, "(null)", {}},
      {whole, 0, "{\"radio\": true}", {}},
      {plist::make_entitlements_blob(plist_of("<array><dict/></array>")), 0, "(null)", {}},
      {plist::make_entitlements_blob(granted.substr(1)), 0, "(null)", {}},
      {"\1\2\3\4" + whole.substr(4), 0, "(null)", {"bad magic 0x04030201\n"}},
      {whole.substr(0, 7), 0, "(null)", {forged}},
      {whole.substr(0, whole.size() - 1), 0, "(null)", {forged}},
      {with_length("\xFF\xFF\xFF\xFF"), 0, "(null)", {forged}},
      {with_length("\x7F\xFF\xFF\xFF"), 0, "(null)", {forged}},
      {whole.substr(0, 4) + std::string(4, '\0') + granted, 0, "(null)", {forged}},
  };
  for (const auto& [blob, error, entitlements, reasons] : cases) {
    platform.entitlements_blob = blob;
    platform.entitlements_error = error;
    EXPECT_EQ(entitlements_of(7), entitlements) << blob;
    Lines lines;
    for (const std::string& reason : reasons) lines.push_back("copy_entitlements_for_pid: " + reason);
    EXPECT_EQ(platform.take_texts(), lines) << blob;
  }
}

TEST(Entitlements, OnASimulatedDeviceAreTheProfiles) {
  const std::string path = TestPlatform::fresh().root() + "/profile.plist";
  write_file(path,
             plist_of("<dict><key>Entitlements</key><dict><key>12</key><dict><key>a</key><integer>1</integer>"
                      "</dict></dict></dict>"));
  std::string fault;
  const auto device = SimulatedDevice::open(path, fault);
  std::string& blob = TestPlatform::installed().entitlements_blob;
  ASSERT_EQ(device->code_signing().copy_entitlements_blob(12, blob), 0);
  EXPECT_EQ(entitlements_of(12), "{\"a\": 1}");
  blob.clear();
  ASSERT_EQ(device->code_signing().copy_entitlements_blob(1, blob), 0);
  EXPECT_EQ(blob, "");
}

// A process that runs `path`, until it is forgotten.
struct Running {
  explicit Running(const std::string& path) {
    char name[] = "sleep", forever[] = "60";
    char* arguments[] = {name, forever, nullptr};
    EXPECT_EQ(posix_spawn(&pid, path.c_str(), nullptr, nullptr, arguments, environ), 0);
  }
  ~Running() {
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
  }
  pid_t pid = -1;
};

TEST(Entitlements, OnLinuxAreThoseOfTheExecutableThatRootAloneCanWrite) {
  const std::string root = TestPlatform::fresh().root();
  const std::string executable = root + "/sleep";
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
  std::string& blob = TestPlatform::installed().entitlements_blob;
  int& error = TestPlatform::installed().entitlements_error;
  const Running process(executable);
  const auto seen = [&](pid_t pid) {
    blob.clear();
    error = linux_code_signing.copy_entitlements_blob(pid, blob);
    return entitlements_of(pid);
  };
  EXPECT_EQ(seen(process.pid), "(null)");
  EXPECT_EQ(error, 0);
  EXPECT_EQ(seen(std::numeric_limits<int32_t>::max()), "(null)");
  EXPECT_EQ(error, ESRCH);

  EXPECT_NE(sign(plist_of("<array/>")).find("a dictionary in an XML"), std::string::npos);
  EXPECT_NE(sign(granted + std::string(64 * 1024, ' ')).find("longer than 65528 bytes"), std::string::npos);
  fs::permissions(executable, fs::perms::others_write, fs::perm_options::add);
  EXPECT_NE(sign(granted).find("only a file that belongs to root"), std::string::npos);
  fs::permissions(executable, fs::perms::others_write, fs::perm_options::remove);
  if (const std::string fault = sign(granted); !fault.empty()) GTEST_SKIP() << "this machine says: " << fault;

  EXPECT_EQ(seen(process.pid), "{\"radio\": true}");
  fs::rename(executable, executable + ".moved");
  EXPECT_EQ(seen(process.pid), "{\"radio\": true}");
  // Whoever could have written the attribute's file could have written the attribute's words.
  for (const auto others : {fs::perms::group_write, fs::perms::others_write}) {
    fs::permissions(executable + ".moved", others, fs::perm_options::add);
    EXPECT_EQ(seen(process.pid), "(null)");
    fs::permissions(executable + ".moved", others, fs::perm_options::remove);
  }
  const auto forge = [&](const std::string& value) {
    const char* name = plist::entitlements_attribute;
    ASSERT_EQ(setxattr((executable + ".moved").c_str(), name, value.data(), value.size(), 0), 0);
    EXPECT_EQ(seen(process.pid), "(null)");
  };
  for (const size_t size : {0u, 7u, 9u}) forge(plist::make_entitlements_blob(granted).substr(0, size));
  ASSERT_EQ(chown((executable + ".moved").c_str(), 1, 0), 0);
  forge(plist::make_entitlements_blob(granted));
}

TEST(RandomChallenge, IsAsLongAsAskedAndNeverTheSame) {
  TestPlatform::fresh();
  EXPECT_EQ(create_random_challenge(0)->bytes().size(), 0u);
  const auto one = create_random_challenge(32);
  const auto other = create_random_challenge(32);
  EXPECT_TRUE(one->bytes().size() == 32 && other->bytes().size() == 32 && one->bytes() != other->bytes());
  EXPECT_FALSE(create_random_challenge(SIZE_MAX));
  reads_are_short = true;
  EXPECT_FALSE(create_random_challenge(32));
  reads_are_short = false;
  EXPECT_EQ(TestPlatform::installed().take_texts(),
            Lines{"create_random_challenge: failed to read 32 random bytes"});
}

TEST(Clock, CountsWholeSeconds) {
  TestPlatform& platform = TestPlatform::fresh();
  for (const auto& [ticks, seconds] : {std::pair<uint64_t, uint64_t>{0, 0},
                                       {23'999'999, 0},
                                       {24'000'000, 1},
                                       {uint64_t{24'000'000} * 1'000'000'000, 1'000'000'000}}) {
    platform.ticks_now = ticks;
    EXPECT_EQ(monotonic_seconds(), seconds);
  }
}

}  // namespace
}  // namespace corvane
