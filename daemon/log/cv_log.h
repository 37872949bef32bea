#pragma once

#include <span>
#include <string>
#include <type_traits>

#include "daemon/log/format.h"
#include "platform/logger.h"
#include "plist/value.h"

namespace corvane {

/// The worker behind `cv_log`.
void log_line(const char* function, int copy_to_syslog, const char* format,
              std::span<const log_format::Argument> arguments) noexcept;

/// Logs one line: the function's name, ": ", and the message. The format takes printf's conversions (the
/// modifiers l, ll and z; no '*') and "%@" for a property-list value or a Ref to one, which prints its
/// description. A null C string prints "(null)". With no level configured, a set `copy_to_syslog` logs at
/// LOG_NOTICE and a clear one at LOG_DEBUG. Any thread; leaves errno alone; a line for which memory runs out
/// is dropped.
template <class... Arguments>
void cv_log(const char* function, int copy_to_syslog,
            log_format::Checked<std::type_identity_t<std::decay_t<Arguments>>...> format,
            const Arguments&... arguments) noexcept {
  if constexpr (sizeof...(arguments) == 0) {
    log_line(function, copy_to_syslog, format.text, {});
  } else {
    const log_format::Argument erased[] = {log_format::Argument(arguments)...};
    log_line(function, copy_to_syslog, format.text, erased);
  }
}

/// The daemon's handle on the platform logger.
class CVLog {
 public:
  /// Created at the first call, from whichever thread; lives until the process ends.
  static CVLog& getSharedInstance();

  /// Writes a finished line at the configured level, which is asked for each time, or at the one that the
  /// flag chooses. Dropped when the platform logger refused a handle.
  void logMessage_CopyToSyslog(const plist::String& message, int copy_to_syslog);

  /// The newest file of the disk copy.
  static std::string disk_copy_path();
  /// How the log is doing; nothing works where the platform logger refused a handle.
  Logger::Status status();

 private:
  CVLog();

  Logger::Handle* _logHandle;
};

}  // namespace corvane
