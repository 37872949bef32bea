#include "daemon/log.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <new>
#include <string>
#include <syslog.h>

#include "platform/platform.h"
#include "plist/describe.h"

namespace corvane {

namespace {

using log_format::Argument;
using log_format::Conversion;
using log_format::Kind;

constexpr char logger_name[] = "Corvane";
constexpr char disk_log[] = "/var/mobile/Library/Logs/corvaned/corvaned.log";

template <class T>
void append_with(std::string& line, const std::string& specification, T value) {
  const int length = std::snprintf(nullptr, 0, specification.c_str(), value);
  if (length <= 0) return;
  const size_t before = line.size();
  line.resize(before + static_cast<size_t>(length) + 1);
  std::snprintf(line.data() + before, static_cast<size_t>(length) + 1, specification.c_str(), value);
  line.pop_back();
}

// `specification` is the conversion as the format has it, with 'll' put before the letter for integers: the
// arguments were widened on their way here.
std::string widened(const char* start, const Conversion& conversion, Kind kind) {
  std::string specification;
  for (const char* c = start; c != conversion.end - 1; ++c) {
    if (*c != 'l' && *c != 'z') specification += *c;
  }
  if (kind == Kind::signed_integer || kind == Kind::unsigned_integer) specification += "ll";
  return specification + conversion.letter;
}

void append_argument(std::string& line, const char* start, const Conversion& conversion,
                     const Argument& argument) {
  const std::string specification = widened(start, conversion, argument.kind);
  switch (argument.kind) {
    case Kind::signed_integer:
      return append_with(line, specification, static_cast<long long>(argument.signed_integer));
    case Kind::unsigned_integer:
      return append_with(line, specification, static_cast<unsigned long long>(argument.unsigned_integer));
    case Kind::real:
      return append_with(line, specification, argument.real);
    case Kind::c_string:
      return append_with(line, specification, argument.c_string == nullptr ? "(null)" : argument.c_string);
    case Kind::pointer:
      return append_with(line, specification, argument.pointer);
    case Kind::object:
      line += plist::describe(argument.object);
  }
}

void append_message(std::string& line, const char* format, std::span<const Argument> arguments) {
  size_t next = 0;
  for (const char* c = format; *c != '\0';) {
    if (const size_t plain = std::strcspn(c, "%"); plain != 0) {
      line.append(c, plain);
      c += plain;
      continue;
    }
    const Conversion conversion = log_format::read_conversion(c);
    if (conversion.letter == '%') {
      line += '%';
    } else {
      append_argument(line, c, conversion, arguments[next++]);
    }
    c = conversion.end;
  }
}

}  // namespace

void log_line(const char* function, int copy_to_syslog, const char* format,
              std::span<const Argument> arguments) noexcept {
  const int saved_errno = errno;
  try {
    std::string line;
    if (function != nullptr) line.append(function).append(": ");
    append_message(line, format, arguments);
    CVLog::getSharedInstance().logMessage_CopyToSyslog(*plist::String::create(line), copy_to_syslog);
  } catch (const std::bad_alloc&) {
    // The caller is told of no failure of the log, and there is no memory to tell anyone else.
  }
  errno = saved_errno;
}

CVLog& CVLog::getSharedInstance() {
  static CVLog shared_instance;
  return shared_instance;
}

CVLog::CVLog() : _logHandle(platform().logger().open(logger_name, 3)) {
  if (_logHandle == nullptr) return;
  platform().logger().enable_disk_copy(_logHandle, system_path(disk_log).c_str(), 2, 65536);
}

void CVLog::logMessage_CopyToSyslog(const plist::String& message, int copy_to_syslog) {
  int level = platform().logger().configured_level(logger_name);
  if (level == Logger::no_level) level = copy_to_syslog != 0 ? LOG_NOTICE : LOG_DEBUG;
  if (_logHandle == nullptr) return;
  platform().logger().write(_logHandle, level, "CV", "%@", message);
}

}  // namespace corvane
