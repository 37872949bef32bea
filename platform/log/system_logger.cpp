#include "platform/log/system_logger.h"

#include <new>
#include <optional>
#include <syslog.h>
#include <utility>

#include "platform/log/disk_copy.h"
#include "platform/log/log_line.h"

namespace corvane {

namespace {

constexpr char level_domain[] = "com.norvane.logger";
constexpr size_t longest_line_without_disk = 64 * 1024;

}  // namespace

class Logger::Handle {
 public:
  std::optional<DiskCopy> disk;
  bool disk_works = false;  ///< it took the last line
};

SystemLogger::SystemLogger(Preferences& preferences, bool copy_to_stderr, std::string system_log)
    : preferences_(preferences), system_log_(std::move(system_log)) {
  if (copy_to_stderr) standard_error_.emplace();
}

SystemLogger::~SystemLogger() = default;

Logger::Handle* SystemLogger::open(const char*, int) {
  try {
    const std::lock_guard lock(mutex_);
    return handles_.emplace_back(std::make_unique<Handle>()).get();
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

void SystemLogger::enable_disk_copy(Handle* handle, const char* path, int files, size_t bytes) {
  try {
    const std::lock_guard lock(mutex_);
    handle->disk.emplace(path, files, bytes);
  } catch (const std::bad_alloc&) {
    // The log does without a disk copy: its lines go to the system log.
  }
}

int SystemLogger::configured_level(const char* name) {
  try {
    const auto value = preferences_.copy_value(level_domain, name);
    const auto* const number = plist::cast<plist::Number>(value.get());
    if (number == nullptr || !number->is_integer()) return no_level;
    const bool is_level = number->int64() >= LOG_EMERG && number->int64() <= LOG_DEBUG;
    return is_level ? static_cast<int>(number->int64()) : no_level;
  } catch (const std::bad_alloc&) {
    return no_level;
  }
}

Logger::Status SystemLogger::status(Handle* handle) {
  const std::lock_guard lock(mutex_);
  return {handle->disk_works, standard_error_ ? standard_error_->dropped_lines() : 0};
}

void SystemLogger::write(Handle* handle, int level, const char* tag, const char*, const plist::String& argument) {
  try {
    const std::lock_guard lock(mutex_);
    const size_t limit = handle->disk ? handle->disk->longest_line() : longest_line_without_disk;
    const LogLine line(level, tag, argument.view(), limit);
    handle->disk_works = handle->disk && handle->disk->append(line.whole());
    if (level <= LOG_NOTICE || !handle->disk_works) system_log_.write(level, line.without_head());
    if (standard_error_) standard_error_->write(line.whole());
  } catch (const std::bad_alloc&) {
    // The line is lost, and there is no memory to tell anybody.
  }
}

}  // namespace corvane
