#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/log/standard_error.h"
#include "platform/log/system_log.h"
#include "platform/logger.h"
#include "platform/preferences.h"

namespace corvane {

/// The platform logger: every line (LogLine) goes to the disk (DiskCopy), and one of level 5 and below to the
/// system log (SystemLog) as well. A line that the disk does not take goes to the system log whatever its level.
///
/// The configured level is the preference named after the logger in the domain "com.norvane.logger", an
/// integer from 0 to 7; anything else configures nothing.
class SystemLogger final : public Logger {
 public:
  /// `preferences` must outlive the logger. `copy_to_stderr` writes each line to standard error
  /// (StandardError) as well. `system_log` is the datagram socket of the system log.
  SystemLogger(Preferences& preferences, bool copy_to_stderr, std::string system_log = "/dev/log");
  ~SystemLogger() override;

  /// The name and the options change nothing. Null where memory is out.
  Handle* open(const char* name, int options) override;
  /// Precondition: `files` >= 2.
  void enable_disk_copy(Handle* handle, const char* path, int files, size_t bytes) override;
  int configured_level(const char* name) override;
  Status status(Handle* handle) override;
  void write(Handle* handle, int level, const char* tag, const char* format,
             const plist::String& argument) override;

 private:
  Preferences& preferences_;
  std::mutex mutex_;
  SystemLog system_log_;
  std::optional<StandardError> standard_error_;
  std::vector<std::unique_ptr<Handle>> handles_;
};

}  // namespace corvane
