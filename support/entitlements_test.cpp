#include "support/entitlements.h"

#include <gtest/gtest.h>

#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include "platform/linux/linux_code_signing.h"
#include "plist/describe.h"
#include "plist/entitlements_blob.h"
#include "support/clock.h"
#include "support/random_challenge.h"
#include "tests/support/test_platform.h"
#include "tools/entitlements.h"
#include "tools/files.h"

namespace corvane {
namespace {

namespace fs = std::filesystem;
using plist::make_entitlements_blob;
using testing::TestPlatform;
using testing::write_file;
using Lines = std::vector<std::string>;

std::string plist_of(const std::string& value) { return "<plist version=\"1.0\">" + value + "</plist>"; }
const std::string radio = plist_of("<dict><key>radio</key><true/></dict>");

std::string entitlements_of(int32_t pid) { return plist::describe(copy_entitlements_for_pid(pid).get()); }

// What a blob gives is compared with a plain reading by fuzz/entitlements.cpp.
TEST(Entitlements, ABlobThatIsNotWholeIsLogged) {
  TestPlatform& platform = TestPlatform::fresh();
  const std::string whole = make_entitlements_blob(radio), name = "copy_entitlements_for_pid: ";
  platform.entitlements_blob = "\1\2\3\4" + whole.substr(4);
  EXPECT_EQ(entitlements_of(7), "(null)");
  platform.entitlements_blob = whole.substr(0, whole.size() - 1);
  EXPECT_EQ(entitlements_of(7), "(null)");
  EXPECT_EQ(platform.take_texts(),
            (Lines{name + "bad magic 0x04030201\n", name + "sigq1(7): Invalid argument\n"}));
}

/// Processes and executables of this machine.
class LinuxEntitlements : public ::testing::Test {
 protected:
  LinuxEntitlements() { fs::copy_file("/bin/sleep", executable_); }
  ~LinuxEntitlements() override {
    if (child_ > 0 && kill(child_, SIGKILL) == 0) waitpid(child_, nullptr, 0);
  }
  void run(const char* seconds) {
    std::string name = "sleep", argument = seconds;
    char* arguments[] = {name.data(), argument.data(), nullptr};
    ASSERT_EQ(posix_spawn(&child_, executable_.c_str(), nullptr, nullptr, arguments, environ), 0);
  }
  // The entitlements, or the error's text.
  static std::string seen(pid_t pid) {
    std::string& blob = TestPlatform::installed().entitlements_blob;
    blob.clear();
    const int error = LinuxCodeSigning().copy_entitlements_blob(pid, blob);
    return error == 0 ? entitlements_of(pid) : std::strerror(error);
  }

  const std::string executable_ = TestPlatform::fresh().root() + "/sleep";
  pid_t child_ = -1;
};

TEST_F(LinuxEntitlements, NeedAProcessAndAnExecutable) {
  EXPECT_EQ(seen(getpid()), "(null)");
  EXPECT_EQ(seen(std::numeric_limits<int32_t>::max()), "No such process");
  run("0");
  siginfo_t ended;
  ASSERT_EQ(waitid(P_PID, static_cast<id_t>(child_), &ended, WEXITED | WNOWAIT), 0);
  EXPECT_EQ(seen(child_), "(null)") << "a zombie has no executable, like a kernel thread";
}

TEST_F(LinuxEntitlements, AreThoseOfTheExecutableThatRootAloneCanWrite) {
  write_file(executable_ + ".plist", radio);
  try {
    tools::sign_executable(executable_, executable_ + ".plist");
  } catch (const tools::FileFault& fault) {
    GTEST_SKIP() << "this machine says: " << fault.what();
  }
  run("10");
  const std::string moved = executable_ + ".moved";
  fs::rename(executable_, moved);
  EXPECT_EQ(seen(child_), "{\"radio\": true}");
  for (const auto others : {fs::perms::group_write, fs::perms::others_write}) {
    fs::permissions(moved, others, fs::perm_options::add);
    EXPECT_EQ(seen(child_), "(null)") << "others could have changed what runs";
    fs::permissions(moved, others, fs::perm_options::remove);
  }
  ASSERT_EQ(chown(moved.c_str(), 1, 0), 0);
  EXPECT_EQ(seen(child_), "(null)") << "its owner could have changed what runs";
}

TEST(RandomChallenge, IsAsLongAsAskedAndNeverTheSame) {
  TestPlatform::fresh();
  const auto one = create_random_challenge(32), other = create_random_challenge(32);
  EXPECT_EQ(one->bytes().size(), 32u);
  EXPECT_NE(one->bytes(), other->bytes());
}

TEST(Clock, CountsWholeSeconds) {
  TestPlatform::fresh().ticks_now = 24'000'000 * 5 - 1;  // 24 million a second
  EXPECT_EQ(monotonic_seconds(), 4u);
}

}  // namespace
}  // namespace corvane
