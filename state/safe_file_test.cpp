#include "state/safe_file.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <regex>
#include <unistd.h>

#include "platform/descriptor.h"
#include "state/directory_tree.h"
#include "state/plist_file.h"
#include "state/values.h"
#include "tests/support/test_platform.h"

namespace corvane {
namespace {

namespace fs = std::filesystem;
using Lines = std::vector<std::string>;

// A root with one of everything that can be planted. No descriptor may be left at the end of a test.
class StateFiles : public ::testing::Test {
 protected:
  StateFiles() {
    umask(022);
    fs::create_directories(at("/folder/sub/deeper"));
    testing::write_file(file_, "content");
    fs::create_directories(at("/outside/kept"));
    fs::create_symlink(at("/outside"), at("/folder/link"));
    fs::create_symlink("nowhere", at("/folder/sub/dangling"));
    fs::create_directory_symlink(at("/folder"), at("/linked"));
    mkfifo(fifo_.c_str(), 0600);
  }
  ~StateFiles() override { EXPECT_EQ(testing::open_descriptors(), descriptors_); }

  std::string at(const std::string& path) const { return platform_.root() + path; }
  // What was logged, without the root and without owner and group, where these are ours.
  Lines log() {
    const std::regex ours(at("| uid=") + std::to_string(getuid()) + " gid=" + std::to_string(getgid()));
    Lines lines;
    for (const auto& [level, text] : platform_.take_lines())
      lines.push_back(std::to_string(level) + " " + std::regex_replace(text, ours, ""));
    return lines;
  }

  testing::TestPlatform& platform_ = testing::TestPlatform::fresh();
  const std::string folder_ = at("/folder"), file_ = at("/folder/file"), fifo_ = at("/folder/fifo");
  const plist::Ref<plist::MutableDictionary> value_ = create_dict();
  size_t descriptors_ = testing::open_descriptors();
};

TEST_F(StateFiles, WhatIsNotWantedIsRefusedWithoutHanging) {
  const std::tuple<const char*, int, mode_t, const char*> cases[] = {
      {"/folder/link", 0, S_IFREG, "5 _safe_open: open(/folder/link) failed: Too many levels of symbolic links"},
      {"/linked/file", 0, S_IFREG,
       "5 _safe_open: path /linked/file was actually /folder/file, something fishy is going on"},
      {"/folder/fifo", 0, S_IFREG, "5 _safe_open: /folder/fifo type is 4096, not 32768"},
      {"/folder/fifo", O_WRONLY, S_IFREG, "5 _safe_open: open(/folder/fifo) failed: No such device or address"},
      {"/new", O_CREAT, S_IFREG, "7 safe_open: safe_open can't be used to create /new"}};
  for (const auto& [path, flags, type, line] : cases) {
    EXPECT_EQ(safe_open(at(path).c_str(), flags, type), -1) << line;
    EXPECT_EQ(log(), Lines{line});
  }
  EXPECT_EQ(std::exchange(errno, 0), EINVAL);
  EXPECT_EQ(safe_create(at("/new").c_str(), O_WRONLY, 0600, S_IFREG), -1);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_FALSE(fs::exists(at("/new")));
  platform_.locate_error = EIO;
  EXPECT_EQ(safe_open(file_.c_str(), O_RDONLY, S_IFREG), -1);
  EXPECT_EQ(safe_bundle(file_.c_str(), nullptr, 0), -1);
  EXPECT_EQ(errno, EIO);
  EXPECT_EQ(log(), (Lines{"5 safe_create: safe_create requires O_CREAT /new",
                          "5 _safe_open: FDLOCATE(/folder/file) failed: Input/output error",
                          "7 safe_bundle: FDLOCATE(/folder/file) failed: Input/output error"}));
}

TEST_F(StateFiles, WhatIsWantedIsOpened) {
  const Descriptor created(safe_create(at("/new").c_str(), O_WRONLY | O_CREAT, 0600, S_IFREG));
  EXPECT_EQ(fs::status(at("/new")).permissions(), fs::perms(0600));
  // A FIFO blocks its reader unless that is not wanted.
  for (const int asked : {0, O_NONBLOCK}) {
    const Descriptor fifo(safe_open(fifo_.c_str(), O_RDONLY | asked, S_IFIFO));
    EXPECT_EQ(fcntl(fifo.number(), F_GETFL) & O_NONBLOCK, asked);
  }
  EXPECT_EQ(log(), Lines{});
}

TEST_F(StateFiles, ABundlePathIsWrittenOnlyBelowAnAllowedDirectory) {
  const std::string own = at("/private/var/mobile/Library/Carrier Bundle.bundle/file");
  const std::string other = at("/System/Library/Carrier Bundles/Slat/file");
  const std::tuple<std::string, size_t, std::string> cases[] = {
      {own, own.size() + 1, own},
      {own, own.size(), own.substr(0, own.size() - 1)},
      {own, 0, "before"},
      {other, 1024, "before"},
      // So small a buffer compares no further than the root that all of these paths share.
      {other, 4, other.substr(0, 3)}};
  for (const auto& [target, size, result] : cases) {
    fs::create_directories(target);
    fs::remove(at("/leads"));
    fs::create_symlink(target, at("/leads"));
    char resolved[1024] = "before";
    EXPECT_EQ(safe_bundle(at("/leads").c_str(), resolved, size), 0);
    EXPECT_EQ(resolved, result) << target << " " << size;
  }
}

TEST(PathNames, AreCutInPlace) {
  const std::tuple<const char*, const char*, const char*> cases[] = {
      {"/a/b", "/a", "b"}, {"a//b", "a", "b"}, {"/a", "/", "a"},       {"a", ".", "a"},   {"/", "/", "/"},
      {"///", "/", "/"},   {"a/", ".", "a"},   {"/a//b//", "/a", "b"}, {"//a", "/", "a"}, {"", "", ""}};
  for (const auto& [path, dirname, basename] : cases) {
    char buffer[16];
    EXPECT_STREQ(path_dirname(std::strcpy(buffer, path)), dirname) << path;
    EXPECT_STREQ(path_basename(std::strcpy(buffer, path)), basename) << path;
  }
  EXPECT_TRUE(path_dirname(nullptr) == nullptr && path_basename(nullptr) == nullptr);
}

TEST_F(StateFiles, AStoredFileKeepsItsModeAndLoadsAsAsked) {
  const std::string path = at("/new");
  ASSERT_EQ(store_dict(path.c_str(), *value_), 0);
  EXPECT_EQ(fs::status(path).permissions(), fs::perms(0644));
  testing::write_file(path, std::string(5000, 'x'));
  fs::permissions(path, fs::perms(0600));
  ASSERT_EQ(store_dict(path.c_str(), *value_), 0);
  EXPECT_EQ(fs::status(path).permissions(), fs::perms(0600));
  EXPECT_EQ(testing::read_file(path).substr(0, 8), "bplist00");
  for (const bool immutable : {true, false}) {
    const auto loaded = _load_dict(path.c_str(), immutable);
    ASSERT_TRUE(plist::equal(loaded.get(), value_.get()));
    EXPECT_EQ(loaded->is_mutable(), !immutable);
  }
}

TEST_F(StateFiles, FailedStoresAndLoadsAreLoggedInOrder) {
  // The kernel gives less of this file than its size promises.
  constexpr char short_file[] = "/sys/devices/system/cpu/online";
  if (!fs::exists(short_file)) GTEST_SKIP() << "there is no " << short_file << " here";
  value_->set("itself", value_);  // nested deeper than a file can be
  EXPECT_EQ(store_dict(file_.c_str(), *value_), -1);
  EXPECT_EQ(testing::read_file(file_), "content");
  value_->remove("itself");
  EXPECT_EQ(store_dict(fifo_.c_str(), *value_), -1);
  EXPECT_EQ(errno, ENXIO);
  EXPECT_FALSE(load_dict(at("/folder/sub/dangling").c_str()));
  EXPECT_EQ(errno, ELOOP);
  EXPECT_FALSE(load_mutable_dict(file_.c_str()));
  errno = 0;
  EXPECT_FALSE(load_dict(short_file));
  // Of all failures only this one is allowed to leave its descriptor.
  fs::resize_file(file_, uintmax_t{1} << 32);
  EXPECT_FALSE(load_dict(file_.c_str()));
  ++descriptors_;
  EXPECT_EQ(log(), (Lines{"7 store_dict: Could not serialize dictionary to stream",
                          "5 _safe_open: open(/folder/fifo) failed: No such device or address",
                          "7 store_dict: Could not create /folder/fifo: No such device or address",
                          "7 log_file_info: stat /folder/fifo p=10600", "7 log_file_info: stat /folder p=40755",
                          "5 _safe_open: open(/folder/sub/dangling) failed: Too many levels of symbolic links",
                          "7 _load_dict: Could not open /folder/sub/dangling: Too many levels of symbolic links",
                          "7 log_file_info: Can't stat /folder/sub/dangling: No such file or directory",
                          "7 log_file_info: stat /folder/sub p=40755",
                          "7 _load_dict: Could not create dictionary from stream",
                          "7 _load_dict: Could not read /sys/devices/system/cpu/online: Success",
                          "7 _load_dict: too big for our purposes"}));
}

TEST_F(StateFiles, ATreeIsEmptiedDownToItsRootWithoutFollowingLinks) {
  // Of the root 1,024 characters count, which here leaves the folder.
  const std::string root = folder_ + std::string(1024 - folder_.size(), '/') + "cut";
  EXPECT_EQ(empty_directory_ignoring_path(root.c_str(), 0, at("/linked/file").c_str()), 0);
  EXPECT_EQ(std::distance(fs::directory_iterator(folder_), {}), 1);
  EXPECT_EQ(empty_directory_ignoring_path(at("/linked").c_str(), 0, "/missing"), 0);
  EXPECT_TRUE(fs::is_empty(folder_) && fs::is_symlink(at("/linked")) && fs::exists(at("/outside/kept")));
  EXPECT_EQ(empty_directory_ignoring_path(folder_.c_str(), remove_root, nullptr), 0);
  EXPECT_FALSE(fs::exists(folder_));
  EXPECT_EQ(log(), (Lines{"7 empty_directory_ignoring_path: ignoring unlink of /folder/file",
                          "7 empty_directory_ignoring_path: ignorePath /missing was invalid"}));
}

// Both subdirectories hold what must be kept; the first one that cannot be removed ends the work.
TEST_F(StateFiles, EmptyingStopsAtTheFirstFailure) {
  for (const char* name : {"/two/one", "/two/other"}) {
    fs::create_directories(at(name));
    testing::write_file(at(name) + "/file", "");
    fs::create_symlink(at("/outside"), at(name) + "/kept");
  }
  EXPECT_EQ(empty_directory_ignoring_path(at("/two").c_str(), 0, at("/outside").c_str()), 1);
  EXPECT_NE(fs::exists(at("/two/one/file")), fs::exists(at("/two/other/file")));
  EXPECT_TRUE(fs::is_symlink(at("/two/one/kept")) && fs::is_symlink(at("/two/other/kept")));
  EXPECT_TRUE(log().at(1).ends_with(": Directory not empty"));
  // The kernel lets nobody, not even root, unlink what it shows here.
  EXPECT_EQ(empty_directory("/proc/self/fdinfo"), 1);
  EXPECT_TRUE(log().at(0).starts_with("7 empty_directory_ignoring_path: unlink /proc/self/fdinfo/"));
}

TEST_F(StateFiles, IsEmptyPathSeesAnyEntryOfADirectory) {
  const std::pair<const char*, int> cases[] = {
      {"/folder", 0}, {"/linked", 0}, {"/folder/sub", 0}, {"/folder/sub/deeper", 1}, {"/none", 1}};
  for (const auto& [path, empty] : cases) EXPECT_EQ(is_empty_path(at(path).c_str()), empty) << path;
  EXPECT_EQ(is_empty_path("") + empty_directory(""), 2);
  EXPECT_EQ(log(), (Lines{"7 is_empty_path: fts_open: No such file or directory",
                          "7 empty_directory_ignoring_path: fts_open: No such file or directory"}));
}

}  // namespace
}  // namespace corvane
