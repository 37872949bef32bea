#include "state/safe_file.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <sys/syscall.h>
#include <unistd.h>

#include "platform/descriptor.h"
#include "state/directory_tree.h"
#include "state/plist_file.h"
#include "state/values.h"
#include "tests/support/test_platform.h"

namespace {

// While it is set, every read and write is counted and does half of what it was asked for.
bool half_done = false;
int calls = 0;

ssize_t transfer(long number, int descriptor, void* bytes, size_t size) {
  if (half_done) ++calls;
  return syscall(number, descriptor, bytes, half_done ? size / 2 : size);
}

}  // namespace

extern "C" ssize_t read(int descriptor, void* bytes, size_t size) {
  return transfer(SYS_read, descriptor, bytes, size);
}
extern "C" ssize_t write(int descriptor, const void* bytes, size_t size) {
  return transfer(SYS_write, descriptor, const_cast<void*>(bytes), size);
}

namespace corvane {
namespace {

namespace fs = std::filesystem;
using testing::open_descriptors;
using testing::read_file;
using testing::TestPlatform;
using testing::write_file;
using Lines = std::vector<std::string>;

// A root with one of everything that can be planted. No descriptor may be left at the end of a test.
class StateFiles : public ::testing::Test {
 protected:
  StateFiles() {
    fs::create_directories(folder_ + "/sub/deeper");
    write_file(file_, "content");
    write_file(outside_, "");
    fs::create_symlink(outside_, folder_ + "/link");
    fs::create_symlink("nowhere", folder_ + "/sub/dangling");
    fs::create_directory_symlink(folder_, linked_);
    mkfifo(fifo_.c_str(), 0600);
    value_->set("Inner", create_dict());
  }
  ~StateFiles() override { EXPECT_EQ(open_descriptors(), descriptors_); }

  Lines log_with_levels() {
    Lines lines;
    for (const auto& line : platform_.take_lines()) lines.push_back(std::to_string(line.level) + " " + line.text);
    return lines;
  }
  // What was done, in order, without what follows the first path of a line.
  Lines log_without_paths() {
    Lines lines = platform_.take_texts();
    for (std::string& line : lines) line = line.substr(0, line.find(platform_.root()));
    return lines;
  }

  TestPlatform& platform_ = TestPlatform::fresh();
  const std::string folder_ = platform_.root() + "/folder", file_ = folder_ + "/file", fifo_ = folder_ + "/fifo";
  const std::string linked_ = platform_.root() + "/linked", outside_ = platform_.root() + "/outside";
  const plist::Ref<plist::MutableDictionary> value_ = create_dict();
  size_t descriptors_ = open_descriptors();
};

// The far end of a new terminal; where there are none, as in a bare container, another character device.
std::string new_terminal(const Descriptor& near_end) {
  if (!near_end.is_open() || grantpt(near_end.number()) != 0 || unlockpt(near_end.number()) != 0)
    return "/dev/null";
  return ptsname(near_end.number());
}

TEST_F(StateFiles, WhatStandsInAFilesPlaceIsRefusedWithoutHanging) {
  const Descriptor near_end(posix_openpt(O_RDWR | O_NOCTTY));
  const std::string terminal = new_terminal(near_end), link = folder_ + "/link";
  const std::string through_link = linked_ + "/file", doubled = platform_.root() + "//folder/file";
  const std::string fishy = " was actually " + file_ + ", something fishy is going on";
  const struct {
    std::string path;
    int flags;
    mode_t type;
    std::string line;
  } cases[] = {{link, O_RDONLY, S_IFREG, "open(" + link + ") failed: Too many levels of symbolic links"},
               {through_link, O_RDONLY, S_IFREG, "path " + through_link + fishy},
               {doubled, O_RDONLY, S_IFREG, "path " + doubled + fishy},
               {folder_, O_RDONLY, S_IFREG, folder_ + " type is 16384, not 32768"},
               {file_, O_RDONLY, S_IFDIR, file_ + " type is 32768, not 16384"},
               {fifo_, O_RDONLY, S_IFREG, fifo_ + " type is 4096, not 32768"},
               {fifo_, O_WRONLY, S_IFREG, "open(" + fifo_ + ") failed: No such device or address"},
               {terminal, O_RDWR, S_IFREG, terminal + " type is 8192, not 32768"}};
  for (const auto& c : cases) {
    EXPECT_EQ(safe_open(c.path.c_str(), c.flags, c.type), -1) << c.line;
    EXPECT_EQ(log_with_levels(), Lines{"5 _safe_open: " + c.line});
  }
}

TEST_F(StateFiles, WhatIsWantedIsOpened) {
  const Descriptor created(safe_create((folder_ + "/new").c_str(), O_WRONLY | O_CREAT, 0600, S_IFREG));
  EXPECT_EQ(fs::status(folder_ + "/new").permissions(), fs::perms(0600));
  // A FIFO blocks its reader unless that is not wanted.
  for (const int asked : {0, O_NONBLOCK}) {
    const Descriptor fifo(safe_open(fifo_.c_str(), O_RDONLY | asked, S_IFIFO));
    EXPECT_EQ(fcntl(fifo.number(), F_GETFL) & O_NONBLOCK, asked);
  }
  EXPECT_TRUE(platform_.take_lines().empty());
}

TEST_F(StateFiles, OpeningFailsWithTheReasonInErrno) {
  const std::string path = folder_ + "/new";
  EXPECT_EQ(safe_open(path.c_str(), O_WRONLY | O_CREAT, S_IFREG), -1);
  EXPECT_EQ(std::exchange(errno, 0), EINVAL);
  EXPECT_EQ(safe_create(path.c_str(), O_WRONLY, 0600, S_IFREG), -1);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_FALSE(fs::exists(path));
  platform_.locate_error = EIO;
  EXPECT_EQ(safe_open(file_.c_str(), O_RDONLY, S_IFREG), -1);
  EXPECT_EQ(std::exchange(errno, 0), EIO);
  EXPECT_EQ(safe_bundle(file_.c_str(), nullptr, 0), -1);
  EXPECT_EQ(errno, EIO);
  EXPECT_EQ(log_with_levels(), (Lines{"7 safe_open: safe_open can't be used to create " + path,
                                      "5 safe_create: safe_create requires O_CREAT " + path,
                                      "5 _safe_open: FDLOCATE(" + file_ + ") failed: Input/output error",
                                      "7 safe_bundle: FDLOCATE(" + file_ + ") failed: Input/output error"}));
}

TEST_F(StateFiles, ABundlePathIsWrittenOnlyBelowAnAllowedDirectory) {
  const std::string bundles = system_path("/System/Library/Carrier Bundles/");
  const std::string own = system_path("/private/var/mobile/Library/Carrier Bundle.bundle/file");
  const std::string slate = bundles + "Slate/file", plover = bundles + "Plover/file";
  const std::string other = bundles + "Slat/file";
  const struct {
    std::string target;
    size_t size;
    std::string result;
  } cases[] = {{own, 1024, own},
               {plover, 1024, plover},
               {slate, slate.size() + 1, slate},
               {slate, slate.size(), slate.substr(0, slate.size() - 1)},
               {other, 1024, "before"},
               // So small a buffer compares no further than the root that all of these paths share.
               {other, 4, other.substr(0, 3)},
               {slate, 0, "before"}};
  for (const auto& c : cases) {
    fs::create_directories(fs::path(c.target).parent_path());
    write_file(c.target, "");
    fs::remove(linked_);
    fs::create_symlink(c.target, linked_);
    char resolved[1024] = "before";
    EXPECT_EQ(safe_bundle(linked_.c_str(), resolved, c.size), 0);
    EXPECT_EQ(resolved, c.result) << c.target << " " << c.size;
  }
  EXPECT_EQ(safe_bundle((bundles + "none").c_str(), nullptr, 0), -1);
  EXPECT_EQ(log_with_levels(),
            Lines{"7 safe_bundle: safe_bundle(" + bundles + "none) failed: No such file or directory"});
}

TEST(PathNames, AreCutInPlace) {
  const struct {
    const char *path, *dirname, *basename;
  } cases[] = {{"/a/b", "/a", "b"}, {"a//b", "a", "b"}, {"/a", "/", "a"},       {"a", ".", "a"},   {"/", "/", "/"},
               {"///", "/", "/"},   {"a/", ".", "a"},   {"/a//b//", "/a", "b"}, {"//a", "/", "a"}, {"", "", ""}};
  for (const auto& c : cases) {
    char buffer[16];
    EXPECT_STREQ(path_dirname(std::strcpy(buffer, c.path)), c.dirname) << c.path;
    EXPECT_STREQ(path_basename(std::strcpy(buffer, c.path)), c.basename) << c.path;
  }
  EXPECT_EQ(path_dirname(nullptr), nullptr);
  EXPECT_EQ(path_basename(nullptr), nullptr);
}

TEST_F(StateFiles, OwnerAndModeOfPathAndParentAreLogged) {
  const std::string ids = " uid=" + std::to_string(getuid()) + " gid=" + std::to_string(getgid()) + " p=";
  chmod(file_.c_str(), 0640);
  chmod(folder_.c_str(), 0711);
  log_path_and_parent(file_.c_str());
  EXPECT_EQ(platform_.take_texts(), (Lines{"log_file_info: stat " + file_ + ids + "100640",
                                           "log_file_info: stat " + folder_ + ids + "40711"}));
}

TEST_F(StateFiles, AStoredFileKeepsItsModeAndLoadsAsAsked) {
  const std::string path = folder_ + "/new";
  umask(022);
  ASSERT_EQ(store_dict(path.c_str(), *value_), 0);
  EXPECT_EQ(fs::status(path).permissions(), fs::perms(0644));
  write_file(path, std::string(5000, 'x'));
  fs::permissions(path, fs::perms(0600));
  ASSERT_EQ(store_dict(path.c_str(), *value_), 0);
  EXPECT_EQ(fs::status(path).permissions(), fs::perms(0600));
  EXPECT_EQ(read_file(path).substr(0, 8), "bplist00");
  for (const bool immutable : {true, false}) {
    const auto loaded = immutable ? load_dict(path.c_str()) : load_mutable_dict(path.c_str());
    ASSERT_TRUE(plist::equal(loaded.get(), value_.get()));
    EXPECT_EQ(as_dictionary(loaded.get())->get("Inner")->is_mutable(), !immutable);
  }
  write_file(path, "<plist version=\"1.0\"><array><string>text</string></array></plist>");
  EXPECT_TRUE(as_array(load_dict(path.c_str()).get()));
  EXPECT_TRUE(platform_.take_lines().empty());
}

TEST_F(StateFiles, FailedStoresAndLoadsAreLoggedInOrder) {
  plist::Ref<plist::Value> nest = create_array();
  for (int i = 0; i < 200; ++i) {
    auto outer = create_array();
    outer->append(std::move(nest));
    nest = std::move(outer);
  }
  EXPECT_EQ(store_dict(file_.c_str(), *nest), -1);
  EXPECT_EQ(read_file(file_), "content");
  EXPECT_EQ(platform_.take_texts(), Lines{"store_dict: Could not serialize dictionary to stream"});

  EXPECT_EQ(store_dict(fifo_.c_str(), *value_), -1);
  EXPECT_EQ(errno, ENXIO);
  EXPECT_EQ(log_without_paths(), (Lines{"_safe_open: open(", "store_dict: Could not create ",
                                        "log_file_info: stat ", "log_file_info: stat "}));
  EXPECT_FALSE(load_dict((folder_ + "/sub/dangling").c_str()));
  EXPECT_EQ(errno, ELOOP);
  EXPECT_EQ(log_without_paths(), (Lines{"_safe_open: open(", "_load_dict: Could not open ",
                                        "log_file_info: Can't stat ", "log_file_info: stat "}));
  for (const char* bytes : {"", "content"}) {
    write_file(file_, bytes);
    EXPECT_FALSE(load_mutable_dict(file_.c_str()));
    EXPECT_EQ(platform_.take_texts(), Lines{"_load_dict: Could not create dictionary from stream"});
  }
  // Of all failures only this one is allowed to leave its descriptor.
  fs::resize_file(file_, uintmax_t{1} << 32);
  EXPECT_FALSE(load_dict(file_.c_str()));
  EXPECT_EQ(platform_.take_texts(), Lines{"_load_dict: too big for our purposes"});
  ++descriptors_;
}

// A disk that fills up in the middle of a file, or a file that is cut while it is read, is a failure, not a
// reason to try for the rest.
TEST_F(StateFiles, AShortTransferIsAFailureAfterOneCall) {
  half_done = true;
  const auto loaded = load_dict(file_.c_str());
  const int stored = store_dict(file_.c_str(), *value_);
  half_done = false;
  EXPECT_EQ(calls, 2);
  EXPECT_FALSE(loaded);
  EXPECT_EQ(stored, -1);
  EXPECT_EQ(log_without_paths(), (Lines{"_load_dict: Could not read ", "store_dict: Could not write to ",
                                        "log_file_info: stat ", "log_file_info: stat "}));
  const std::string half = read_file(file_);
  ASSERT_EQ(store_dict(file_.c_str(), *value_), 0);
  EXPECT_EQ(half, read_file(file_).substr(0, fs::file_size(file_) / 2));
}

TEST_F(StateFiles, ATreeIsEmptiedDownToItsRootWithoutFollowingLinks) {
  // Of the root 1,024 characters count, which here leaves the folder.
  const std::string root = folder_ + std::string(1024 - folder_.size(), '/') + "cut";
  EXPECT_EQ(empty_directory_ignoring_path(root.c_str(), 0, (linked_ + "/file").c_str()), 0);
  EXPECT_EQ(platform_.take_texts(), Lines{"empty_directory_ignoring_path: ignoring unlink of " + file_});
  EXPECT_EQ(std::distance(fs::directory_iterator(folder_), {}), 1);
  EXPECT_EQ(empty_directory_ignoring_path(linked_.c_str(), 0, "/missing"), 0);
  EXPECT_EQ(platform_.take_texts(), Lines{"empty_directory_ignoring_path: ignorePath /missing was invalid"});
  EXPECT_TRUE(fs::is_empty(folder_) && fs::is_symlink(linked_) && fs::exists(outside_));
  EXPECT_EQ(empty_directory_ignoring_path(folder_.c_str(), remove_root, nullptr), 0);
  EXPECT_FALSE(fs::exists(folder_));
}

// Both subdirectories hold what must be kept; the first one that cannot be removed ends the work.
TEST_F(StateFiles, EmptyingStopsAtTheFirstFailure) {
  fs::remove_all(folder_);
  for (const char* name : {"/one", "/two"}) {
    fs::create_directories(folder_ + name);
    write_file(folder_ + name + "/file", "");
    fs::create_symlink(outside_, folder_ + name + "/kept");
  }
  EXPECT_EQ(empty_directory_ignoring_path(folder_.c_str(), 0, outside_.c_str()), 1);
  EXPECT_NE(fs::exists(folder_ + "/one/file"), fs::exists(folder_ + "/two/file"));
  EXPECT_TRUE(fs::is_symlink(folder_ + "/one/kept") && fs::is_symlink(folder_ + "/two/kept"));
  EXPECT_EQ(log_without_paths(),
            (Lines{"empty_directory_ignoring_path: ignoring unlink of ", "empty_directory_ignoring_path: rmdir ",
                   "log_file_info: stat ", "log_file_info: stat "}));
  // The kernel lets nobody, not even root, unlink what it shows here.
  EXPECT_EQ(empty_directory("/proc/self/fdinfo"), 1);
  const Lines lines = platform_.take_texts();
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(lines[0].find("empty_directory_ignoring_path: unlink /proc/self/fdinfo/"), 0u);
}

TEST_F(StateFiles, IsEmptyPathSeesAnyEntryOfADirectory) {
  for (const auto& path : {folder_, linked_, folder_ + "/sub"}) EXPECT_EQ(is_empty_path(path.c_str()), 0) << path;
  const std::string empty = folder_ + "/sub/deeper";
  for (const auto& path : {empty, empty + "/", folder_ + "/none"})
    EXPECT_EQ(is_empty_path(path.c_str()), 1) << path;
  EXPECT_TRUE(platform_.take_lines().empty());
  EXPECT_EQ(is_empty_path(""), 1);
  EXPECT_EQ(empty_directory(""), 1);
  EXPECT_EQ(platform_.take_texts(), (Lines{"is_empty_path: fts_open: No such file or directory",
                                           "empty_directory_ignoring_path: fts_open: No such file or directory"}));
}

}  // namespace
}  // namespace corvane
