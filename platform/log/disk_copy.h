#pragma once

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <vector>

#include "platform/descriptor.h"

namespace corvane {

/// The log's copy on the disk: lines are appended to the newest file, at `path`. Where a line would make that
/// larger than `bytes`, the files rotate first: the oldest is removed, then log.log becomes log.1.log, that
/// becomes log.2.log, and so on.
///
/// A disk that does not take a line costs no time: `append` answers false, no half line stays behind, and the disk
/// is tried again about a second later. The same happens where
///  - the folder is missing and cannot be made (only the last one is made),
///  - a link, a folder or anything else but a regular file is at `path` (links in the folder's path are followed),
///  - the files cannot rotate, because a folder has the name of the oldest one.
///
/// Not thread-safe. Throws std::bad_alloc, with the files as they were.
class DiskCopy {
 public:
  /// Nothing is opened before the first line. Precondition: `files` >= 2.
  DiskCopy(const std::string& path, int files, size_t bytes);

  /// The longest line that `append` may be given.
  size_t longest_line() const { return bytes_; }
  /// Appends a line that ends in a line feed. Answers whether it is in the file, as a whole.
  bool append(std::string_view line);

 private:
  bool is_in_place();
  bool open();
  int open_file() const;
  bool make_room_for(std::string_view line);
  bool rotate();
  bool write_whole(std::string_view line);
  void close_until_retry();

  std::vector<std::string> paths_;  // the newest file's first
  const size_t bytes_;
  std::optional<Descriptor> file_;
  off_t size_ = 0;
  std::chrono::steady_clock::time_point next_try_{};
  std::chrono::steady_clock::time_point next_look_{};
};

}  // namespace corvane
