#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "platform/process/small_file.h"

namespace corvane {

/// The property-list file that describes a simulated device. It may be edited while the daemon runs. Any
/// thread.
class Profile {
 public:
  /// Null, and in `fault` one line that says why, where there is no dictionary to read.
  static std::unique_ptr<Profile> open(const std::string& path, std::string& fault);

  const std::string& path() const { return file_.path(); }

  /// The profile at this moment. A version that is missing or bad is reported once, and the last good one
  /// stays.
  plist::Ref<plist::Dictionary> current();

 private:
  explicit Profile(const std::string& path) : file_(path) {}

  DictionaryFile file_;
  std::mutex mutex_;
  uint64_t version_ = 0;
  plist::Ref<plist::Dictionary> last_good_;
};

}  // namespace corvane
