#include "daemon/log/cv_log.h"

#include <cerrno>
#include <new>
#include <string>
#include <syslog.h>

#include "platform/platform.h"

namespace corvane {

namespace {

// Few lines are longer: a line is put together without growing.
constexpr size_t usual_line = 240;

constexpr char logger_name[] = "Corvane";
constexpr char disk_log[] = "/var/mobile/Library/Logs/corvaned/corvaned.log";

}  // namespace

void log_line(const char* function, int copy_to_syslog, const char* format,
              std::span<const log_format::Argument> arguments) noexcept {
  const int saved_errno = errno;
  try {
    std::string line;
    line.reserve(usual_line);
    if (function != nullptr) line.append(function).append(": ");
    log_format::append_message(line, format, arguments);
    CVLog::getSharedInstance().logMessage_CopyToSyslog(*plist::String::create(line), copy_to_syslog);
  } catch (const std::bad_alloc&) {
    // The line is lost: a log does not fail towards its caller, and there is no memory to tell anyone else.
  }
  errno = saved_errno;
}

CVLog& CVLog::getSharedInstance() {
  static CVLog shared_instance;
  return shared_instance;
}

CVLog::CVLog() : _logHandle(platform().logger().open(logger_name, 3)) {
  if (_logHandle == nullptr) return;
  platform().logger().enable_disk_copy(_logHandle, disk_copy_path().c_str(), 2, 65536);
}

std::string CVLog::disk_copy_path() { return system_path(disk_log); }

Logger::Status CVLog::status() {
  return _logHandle == nullptr ? Logger::Status() : platform().logger().status(_logHandle);
}

void CVLog::logMessage_CopyToSyslog(const plist::String& message, int copy_to_syslog) {
  int level = platform().logger().configured_level(logger_name);
  if (level == Logger::no_level) level = copy_to_syslog != 0 ? LOG_NOTICE : LOG_DEBUG;
  if (_logHandle == nullptr) return;
  platform().logger().write(_logHandle, level, "CV", "%@", message);
}

}  // namespace corvane
