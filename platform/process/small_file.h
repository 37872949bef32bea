#pragma once

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <utility>

#include "plist/value.h"

namespace corvane {

/// No file that the platform reads for itself may be larger.
inline constexpr size_t small_file_limit = 1024 * 1024;

struct SmallFile {
  plist::Ref<plist::Data> bytes;  ///< null exactly when `fault` is set
  std::string fault;              ///< in a few words, without the path: why there are no bytes
  bool may_pass = false;          ///< the fault is not the file's own, and may be gone at the next call
};

/// Reads a regular file of at most `small_file_limit` bytes; links are followed. Waits for nothing but the disk,
/// and logs nothing. A file that grows meanwhile is read up to its first size, one that shrinks as far as it goes.
SmallFile read_small_file(const std::string& path);

/// A file that holds one property list, a dictionary, and may be edited at any time. Each call checks with one
/// stat(2) whether the file has changed. Any thread.
class DictionaryFile {
 public:
  struct Contents {
    plist::Ref<plist::Dictionary> dictionary;  ///< null exactly when `fault` is set
    std::string fault;                         ///< one line without the path: why there is no dictionary
    uint64_t version = 0;                      ///< differs for each state of the file that was seen
  };

  explicit DictionaryFile(std::string path) : path_(std::move(path)) {}

  const std::string& path() const { return path_; }

  /// What the file holds at this moment.
  Contents contents();

  /// What its dictionary holds under `key`; null also where the file is missing or bad.
  plist::Ref<plist::Value> copy_value(std::string_view key);

 private:
  /// Tells one state of a file from another; all zero where there is no file.
  struct Stamp {
    dev_t device = 0;
    ino_t inode = 0;
    off_t size = 0;
    int64_t modified = 0;
    int64_t changed = 0;

    bool operator==(const Stamp&) const = default;
  };

  static Stamp take_stamp(const std::string& path);
  void refresh();
  void take_in(Contents fresh, const Stamp& stamp);

  const std::string path_;
  std::mutex mutex_;
  Contents contents_;
  Stamp stamp_;
  bool settled_ = false;
};

}  // namespace corvane
