#include "state/safe_file.h"

#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <fts.h>
#include <sys/resource.h>
#include <unistd.h>

#include "platform/descriptor.h"
#include "state/directory_tree.h"
#include "state/plist_file.h"
#include "state/values.h"
#include "tests/support/state_fixture.h"

static bool walk_breaks_off = false;

// The linker lets state/ call this in place of fts_read.
extern "C" FTSENT* __real_fts_read(FTS* walk);
extern "C" FTSENT* __wrap_fts_read(FTS* walk) {
  FTSENT* entry = __real_fts_read(walk);
  if (!walk_breaks_off || entry->fts_info == FTS_D) return entry;
  errno = ENOMEM;
  return nullptr;
}

namespace corvane {
namespace {

namespace fs = std::filesystem;

// A root with one of everything that can be planted. No descriptor may be left at the end of a test.
class StateFiles : public StateTest {
 protected:
  StateFiles() {
    umask(022);
    fs::create_directories(at("/folder/sub/deeper"));
    testing::write_file(file_, "content");
    fs::create_directories(at("/outside/kept"));
    fs::create_directory_symlink(at("/outside"), at("/folder/link"));
    fs::create_symlink("nowhere", at("/folder/sub/dangling"));
    fs::create_directory_symlink(at("/folder"), at("/linked"));
    mkfifo(fifo_.c_str(), 0600);
  }
  ~StateFiles() override { EXPECT_EQ(testing::open_descriptors(), descriptors_); }

  static std::string info(const char* path, const char* mode) {
    const std::string owner = " uid=" + std::to_string(getuid()) + " gid=" + std::to_string(getgid());
    return std::string("log_file_info: stat ") + path + owner + " p=" + mode;
  }

  const std::string folder_ = at("/folder"), file_ = at("/folder/file"), fifo_ = at("/folder/fifo");
  const plist::Ref<plist::MutableDictionary> value_ = create_dict();
  size_t descriptors_ = testing::open_descriptors();
};

// Sets a limit of this process, and answers what it was.
rlim_t set_limit(__rlimit_resource resource, rlim_t value) {
  rlimit limit;
  getrlimit(resource, &limit);
  const rlim_t before = std::exchange(limit.rlim_cur, value);
  EXPECT_EQ(setrlimit(resource, &limit), 0);
  return before;
}

TEST_F(StateFiles, WhatIsNotWantedIsRefusedWithoutWaiting) {
  const std::tuple<const char*, int, mode_t, int, const char*> refusals[] = {
      {"/folder/link", 0, S_IFREG, ELOOP, "open(/folder/link) failed: Too many levels of symbolic links"},
      {"/folder/fifo", O_WRONLY, S_IFREG, ENXIO, "open(/folder/fifo) failed: No such device or address"},
      {"/linked/file", 0, S_IFREG, ELOOP,
       "path /linked/file was actually /folder/file, something fishy is going on"},
      {"/folder/", 0, S_IFDIR, ELOOP, "path /folder/ was actually /folder, something fishy is going on"},
      {"/folder", 0, S_IFREG, EISDIR, "/folder type is 16384, not 32768"},
      {"/folder/file", 0, S_IFDIR, ENOTDIR, "/folder/file type is 32768, not 16384"},
      {"/folder/fifo", 0, S_IFREG, EINVAL, "/folder/fifo type is 4096, not 32768"}};
  for (const auto& [path, flags, type, error, reason] : refusals) {
    errno = 0;
    EXPECT_EQ(safe_open(at(path).c_str(), flags, type), -1) << reason;
    EXPECT_EQ(errno, error) << reason;
    EXPECT_EQ(log(), Lines{std::string("to the system log: _safe_open: ") + reason});
  }
}

TEST_F(StateFiles, OnlySafeCreateCreates) {
  errno = 0;
  EXPECT_EQ(safe_open(at("/new").c_str(), O_CREAT, S_IFREG), -1);
  EXPECT_EQ(std::exchange(errno, 0), EINVAL);
  EXPECT_EQ(safe_create(at("/new").c_str(), O_WRONLY, 0600, S_IFREG), -1);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(log(), (Lines{"safe_open: safe_open can't be used to create /new",
                          "to the system log: safe_create: safe_create requires O_CREAT /new"}));
  EXPECT_FALSE(fs::exists(at("/new")));
  const Descriptor created(safe_create(at("/new").c_str(), O_WRONLY | O_CREAT, 0600, S_IFREG));
  EXPECT_EQ(fs::status(at("/new")).permissions(), fs::perms(0600));
}

TEST_F(StateFiles, ABundlePathIsCutToItsBuffer) {
  const std::string allowed = at("/private/var/mobile/Library/Carrier Bundle.bundle/file");
  fs::create_directories(allowed);
  char resolved[1024];
  EXPECT_EQ(safe_bundle(allowed.c_str(), resolved, allowed.size()), 0);
  EXPECT_EQ(resolved, allowed.substr(0, allowed.size() - 1)) << "cut for the terminator";
  EXPECT_EQ(safe_bundle(file_.c_str(), resolved, 4), 0);
  EXPECT_EQ(resolved, file_.substr(0, 3)) << "a small buffer compares only the root, which both paths begin with";
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
  ASSERT_TRUE(plist::equal(load_dict(path.c_str()).get(), value_.get()));
  EXPECT_FALSE(load_dict(path.c_str())->is_mutable());
  EXPECT_TRUE(load_mutable_dict(path.c_str())->is_mutable());
}

TEST_F(StateFiles, FailedStoresSayWhy) {
  value_->set("itself", value_);  // nested deeper than a file can be
  EXPECT_EQ(store_dict(file_.c_str(), *value_), -1);
  EXPECT_EQ(testing::read_file(file_), "content");
  EXPECT_EQ(log(), Lines{"store_dict: Could not serialize dictionary to stream"});
  value_->remove("itself");

  EXPECT_EQ(store_dict(fifo_.c_str(), *value_), -1);
  EXPECT_EQ(log(), (Lines{"to the system log: _safe_open: open(/folder/fifo) failed: No such device or address",
                          "store_dict: Could not create /folder/fifo: No such device or address",
                          info("/folder/fifo", "10600"), info("/folder", "40755")}));
  // The kernel cuts a write at the limit.
  const rlim_t usual_size = set_limit(RLIMIT_FSIZE, 10);
  errno = 0;
  EXPECT_EQ(store_dict(file_.c_str(), *value_), -1);
  EXPECT_EQ(errno, ENOSPC);
  set_limit(RLIMIT_FSIZE, usual_size);
  EXPECT_EQ(log(), (Lines{"store_dict: Could not write to /folder/file: No space left on device",
                          info("/folder/file", "100644"), info("/folder", "40755")}));
}

TEST_F(StateFiles, FailedLoadsSayWhy) {
  EXPECT_FALSE(load_dict(file_.c_str()));
  EXPECT_EQ(log(), Lines{"_load_dict: Could not create dictionary from stream"});

  // Of all failures only this one is allowed to leave its descriptor.
  fs::resize_file(file_, uintmax_t{1} << 32);
  EXPECT_FALSE(load_dict(file_.c_str()));
  EXPECT_EQ(log(), Lines{"_load_dict: too big for our purposes"});
  ++descriptors_;
}

TEST_F(StateFiles, ATreeIsEmptiedDownToItsRootWithoutFollowingLinks) {
  EXPECT_EQ(empty_directory_ignoring_path(folder_.c_str(), 0, at("/linked/file").c_str()), 0);
  EXPECT_EQ(log(), Lines{"empty_directory_ignoring_path: ignoring unlink of /folder/file"});
  EXPECT_TRUE(fs::exists(file_));
  EXPECT_EQ(is_empty_path(at("/linked").c_str()), 0);
  EXPECT_EQ(empty_directory_ignoring_path(at("/linked").c_str(), 2, "/missing"), 0) << "bit 1 is not set";
  EXPECT_EQ(log(), Lines{"empty_directory_ignoring_path: ignorePath /missing was invalid"});
  EXPECT_EQ(is_empty_path(folder_.c_str()), 1);
  EXPECT_TRUE(fs::exists(at("/outside/kept")));
  EXPECT_EQ(empty_directory_ignoring_path(folder_.c_str(), remove_root, nullptr), 0);
  EXPECT_FALSE(fs::exists(folder_));
}

TEST_F(StateFiles, EmptyingEndsAtTheFirstFailure) {
  const std::string kept = at("/folder/sub/deeper/kept");
  testing::write_file(kept, "");
  EXPECT_EQ(empty_directory_ignoring_path(folder_.c_str(), remove_root, kept.c_str()), 1);
  EXPECT_EQ(log(), (Lines{"empty_directory_ignoring_path: ignoring unlink of /folder/sub/deeper/kept",
                          "empty_directory_ignoring_path: rmdir /folder/sub/deeper: Directory not empty",
                          info("/folder/sub/deeper", "40755"), info("/folder/sub", "40755")}));
  // The kernel lets nobody, not even root, unlink what it shows here.
  EXPECT_EQ(empty_directory("/proc/self/fdinfo"), 1);
  EXPECT_TRUE(log().at(0).starts_with("empty_directory_ignoring_path: unlink /proc/self/fdinfo/"));
}

TEST_F(StateFiles, EmptyingAnswers1ForWhatItCouldNotRead) {
  const rlim_t usual_number = set_limit(RLIMIT_NOFILE, 0);
  EXPECT_EQ(empty_directory(folder_.c_str()), 1) << "no directory can be opened";
  set_limit(RLIMIT_NOFILE, usual_number);
  walk_breaks_off = true;
  EXPECT_EQ(empty_directory(folder_.c_str()), 1) << "the walk breaks off";
  walk_breaks_off = false;
  EXPECT_TRUE(fs::exists(file_));
  EXPECT_EQ(is_empty_path(""), 1);
  EXPECT_EQ(empty_directory(""), 1);
  EXPECT_EQ(log(), (Lines{"is_empty_path: fts_open: No such file or directory",
                          "empty_directory_ignoring_path: fts_open: No such file or directory"}));
}

}  // namespace
}  // namespace corvane
