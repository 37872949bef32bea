#include "platform/log/disk_copy.h"

#include <gtest/gtest.h>

#include <csignal>
#include <sys/resource.h>
#include <thread>

#include "tests/support/test_platform.h"

namespace corvane {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using std::chrono::steady_clock;
using testing::read_file;
using testing::write_file;

constexpr size_t file_bytes = 4096;

class DiskCopyTest : public ::testing::Test {
 protected:
  DiskCopyTest() { fs::create_directories(folder_); }
  ~DiskCopyTest() override { fs::remove_all(base_); }

  bool append(const std::string& text) { return disk_.append(text + "\n"); }
  // The next line makes the files rotate.
  void fill_the_file() { ASSERT_TRUE(append(std::string(file_bytes - fs::file_size(log_) - 1, 'x'))); }
  static void wait_for_retry() { std::this_thread::sleep_for(1100ms); }

  const std::string base_ = testing::make_temporary_folder();
  const std::string logs_ = base_ + "/Logs";
  const std::string folder_ = logs_ + "/corvaned";
  const std::string log_ = folder_ + "/corvaned.log";
  const std::string older_log_ = folder_ + "/corvaned.1.log";
  const std::string victim_ = base_ + "/victim";
  DiskCopy disk_{log_, 2, file_bytes};
};

TEST_F(DiskCopyTest, AFloodStaysWithinItsFiles) {
  DiskCopy disk(log_, 3, file_bytes);
  write_file(victim_, "untouched");
  fs::create_symlink(victim_, older_log_);
  std::string all;
  for (int i = 0; i < 3000; ++i) {
    const std::string line = "line " + std::to_string(i) + "\n";
    ASSERT_TRUE(disk.append(line));
    all += line;
  }
  const std::string kept = read_file(folder_ + "/corvaned.2.log") + read_file(older_log_) + read_file(log_);
  EXPECT_TRUE(all.ends_with(kept)) << "the files hold the last lines, in order";
  EXPECT_GT(kept.size(), 2 * file_bytes - 50);
  for (const auto& file : fs::directory_iterator(folder_)) EXPECT_LE(file.file_size(), file_bytes) << file;
  EXPECT_EQ(read_file(victim_), "untouched") << "rotation replaces a link";
}

TEST_F(DiskCopyTest, AFolderThatWentIsMadeAnew) {
  fs::remove_all(logs_);
  EXPECT_FALSE(append("nowhere to go"));
  EXPECT_FALSE(fs::exists(logs_)) << "only the last folder is the log's own";
  fs::create_directory(logs_);
  wait_for_retry();
  for (const char* line : {"new folder", "looked at within this second"}) EXPECT_TRUE(append(line));
  fs::remove_all(folder_);
  EXPECT_TRUE(append("removed with its folder"));
  EXPECT_EQ(read_file(log_), "removed with its folder\n");
}

// A full disk takes the first half of a line and refuses the rest; a limit on the file's size does the same.
TEST_F(DiskCopyTest, AFullDiskLeavesNoHalfLine) {
  std::signal(SIGXFSZ, SIG_IGN);
  EXPECT_TRUE(append("first"));
  rlimit before;
  getrlimit(RLIMIT_FSIZE, &before);
  const rlimit full{fs::file_size(log_) + 3, before.rlim_max};
  setrlimit(RLIMIT_FSIZE, &full);
  EXPECT_FALSE(append("refused"));
  setrlimit(RLIMIT_FSIZE, &before);
  EXPECT_FALSE(append("not tried for a second"));
  wait_for_retry();
  EXPECT_TRUE(append("again"));
  EXPECT_EQ(read_file(log_), "first\nagain\n");
}

// The daemon appended to whatever file a link in the log's place named.
TEST_F(DiskCopyTest, ALinkInPlaceOfTheLogIsNotFollowed) {
  write_file(victim_, "untouched");
  fs::create_symlink(victim_, log_);
  EXPECT_FALSE(append("at the first opening"));
  fs::remove(log_);
  wait_for_retry();
  EXPECT_TRUE(append("the link is gone"));

  fs::rename(log_, folder_ + "/moved");
  fs::create_symlink("moved", log_);
  wait_for_retry();
  EXPECT_FALSE(append("over the link to the open file"));
  EXPECT_EQ(read_file(folder_ + "/moved"), "the link is gone\n");
  EXPECT_EQ(read_file(victim_), "untouched");
}

// Each rotation took 100 ms and emptied the log.
TEST_F(DiskCopyTest, AFolderInPlaceOfTheOlderLogCostsNeitherTimeNorLines) {
  ASSERT_TRUE(append("first"));
  fs::create_directory(older_log_);
  fill_the_file();
  const std::string full = read_file(log_);
  const auto start = steady_clock::now();
  EXPECT_FALSE(append("no room"));
  EXPECT_LT(steady_clock::now() - start, 50ms);
  EXPECT_TRUE(read_file(log_) == full);
  fs::remove(older_log_);
  wait_for_retry();
  EXPECT_TRUE(append("rotated"));
  EXPECT_TRUE(read_file(older_log_) == full);
  EXPECT_EQ(read_file(log_), "rotated\n");
}

}  // namespace
}  // namespace corvane
