// The file stays open from line to line. Before each line fstat tells its size and whether it still has a name,
// and about once a second lstat tells whether that name is the path. By their names files are only opened, without
// following links, and renamed, and the oldest is removed. So whatever somebody puts in the newest file's place
// meanwhile is either moved out of the way as it is or refused; it is never written to or cut.

#include "platform/log/disk_copy.h"

#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>

namespace corvane {

namespace {

using std::chrono::steady_clock;

constexpr auto retry_interval = std::chrono::seconds(1);
constexpr auto look_interval = std::chrono::seconds(1);

bool write_all(int file, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t written = write(file, bytes.data(), bytes.size());
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return false;
    bytes.remove_prefix(static_cast<size_t>(written));
  }
  return true;
}

}  // namespace

DiskCopy::DiskCopy(const std::string& path, int files, size_t bytes) : paths_{path}, bytes_(bytes) {
  const std::filesystem::path newest(path);
  for (int age = 1; age < files; ++age) {
    std::filesystem::path older = newest;
    older.replace_extension("." + std::to_string(age) + newest.extension().string());
    paths_.push_back(older.string());
  }
}

bool DiskCopy::append(std::string_view line) {
  if (!is_in_place() && !open()) return false;
  const bool appended = make_room_for(line) && write_whole(line);
  if (!appended) close_until_retry();
  return appended;
}

// A file that was removed must not take a single line more; one that was renamed has its lines for a while.
bool DiskCopy::is_in_place() {
  struct stat status;
  if (!file_ || fstat(file_->number(), &status) != 0 || status.st_nlink == 0) return false;
  size_ = status.st_size;
  if (steady_clock::now() < next_look_) return true;
  next_look_ = steady_clock::now() + look_interval;
  struct stat named;
  return lstat(paths_.front().c_str(), &named) == 0 && named.st_dev == status.st_dev &&
         named.st_ino == status.st_ino;
}

bool DiskCopy::open() {
  file_.reset();
  if (steady_clock::now() < next_try_) return false;
  int number = open_file();
  if (number < 0 && errno == ENOENT) {
    const std::string& path = paths_.front();
    mkdir(path.substr(0, path.rfind('/')).c_str(), 0755);
    number = open_file();
  }
  file_.emplace(number);
  struct stat status;
  if (number < 0 || fstat(number, &status) != 0 || !S_ISREG(status.st_mode)) {
    close_until_retry();
    return false;
  }
  size_ = status.st_size;
  return true;
}

// Opening a FIFO or a terminal must neither wait nor have an effect.
int DiskCopy::open_file() const {
  constexpr int no_side_effects = O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
  return ::open(paths_.front().c_str(), O_WRONLY | O_APPEND | O_CREAT | no_side_effects, 0644);
}

bool DiskCopy::make_room_for(std::string_view line) {
  return static_cast<size_t>(size_) + line.size() <= bytes_ || rotate();
}

// rename(2) takes files and links as they are, and refuses where a folder is in the way. The oldest file is
// removed before, because ext4 writes a file out at once when it is renamed over another one.
bool DiskCopy::rotate() {
  unlink(paths_.back().c_str());
  for (size_t age = paths_.size() - 1; age > 0; --age) {
    if (rename(paths_[age - 1].c_str(), paths_[age].c_str()) != 0 && errno != ENOENT) return false;
  }
  return open();
}

bool DiskCopy::write_whole(std::string_view line) {
  if (write_all(file_->number(), line)) return true;
  // A full disk may have taken the first half.
  [[maybe_unused]] const int best_effort = ftruncate(file_->number(), size_);
  return false;
}

void DiskCopy::close_until_retry() {
  file_.reset();
  next_try_ = steady_clock::now() + retry_interval;
}

}  // namespace corvane
