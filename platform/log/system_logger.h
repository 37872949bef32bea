#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/logger.h"
#include "platform/preferences.h"

namespace corvane {

/// The platform logger: a disk copy of every line, and the system log for those of level 5 and below.
///
/// The configured level is the preference named after the logger in the domain "com.norvane.logger", an
/// integer from 0 to 7; anything else configures nothing.
///
/// A message is one line: one line feed at its end is dropped, other control characters are escaped, and what
/// would not fit into one file of the disk copy is left out, with a note of how much that was. A line that
/// the disk does not take goes to the system log instead, whatever its level, and the disk is tried again
/// about every second. Nothing waits for the system log: what it does not take at once is not in it.
class SystemLogger final : public Logger {
 public:
  /// `preferences` must outlive the logger. `copy_to_stderr` writes each line to standard error as well.
  /// `system_log` is the datagram socket of the system log.
  SystemLogger(Preferences& preferences, bool copy_to_stderr, std::string system_log = "/dev/log");
  ~SystemLogger() override;

  /// The name and the options change nothing. Null where memory is out.
  Handle* open(const char* name, int options) override;
  void enable_disk_copy(Handle* handle, const char* path, int files, size_t bytes) override;
  int configured_level(const char* name) override;
  void write(Handle* handle, int level, const char* tag, const char* format,
             const plist::String& argument) override;

 private:
  class SystemLog;

  Preferences& preferences_;
  const bool copy_to_stderr_;
  std::mutex mutex_;
  const std::unique_ptr<SystemLog> system_log_;
  std::vector<std::unique_ptr<Handle>> handles_;
};

}  // namespace corvane
