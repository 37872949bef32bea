#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <span>
#include <type_traits>

#include "platform/logger.h"
#include "plist/value.h"

namespace corvane {

namespace log_format {

/// What a conversion needs to know of an argument.
enum class Kind : uint8_t { signed_integer, unsigned_integer, real, c_string, pointer, object };

struct Type {
  Kind kind;
  uint8_t size;
};

struct Argument {
  template <std::signed_integral T>
  Argument(T value) : kind(Kind::signed_integer), signed_integer(value) {}
  template <std::unsigned_integral T>
  Argument(T value) : kind(Kind::unsigned_integer), unsigned_integer(value) {}
  Argument(double value) : kind(Kind::real), real(value) {}
  Argument(const char* value) : kind(Kind::c_string), c_string(value) {}
  Argument(const void* value) : kind(Kind::pointer), pointer(value) {}
  Argument(const plist::Value* value) : kind(Kind::object), object(value) {}
  template <class T>
  Argument(const plist::Ref<T>& value) : Argument(static_cast<const plist::Value*>(value.get())) {}

  Kind kind;
  union {
    int64_t signed_integer;
    uint64_t unsigned_integer;
    double real;
    const char* c_string;
    const void* pointer;
    const plist::Value* object;
  };
};

template <class T>
inline constexpr bool is_ref = false;
template <class T>
inline constexpr bool is_ref<plist::Ref<T>> = true;

template <class T>
consteval Type type_of() {
  if constexpr (std::is_same_v<T, const char*> || std::is_same_v<T, char*>)
    return {Kind::c_string, sizeof(T)};
  else if constexpr (is_ref<T> || std::is_convertible_v<T, const plist::Value*>)
    return {Kind::object, sizeof(T)};
  else if constexpr (std::is_pointer_v<T>)
    return {Kind::pointer, sizeof(T)};
  else if constexpr (std::is_floating_point_v<T>)
    return {Kind::real, sizeof(T)};
  else if constexpr (std::signed_integral<T>)
    return {Kind::signed_integer, sizeof(T)};
  else
    return {Kind::unsigned_integer, sizeof(T)};
}

/// Not constexpr, so that reaching it stops the compilation and shows the reason.
inline void bad_format(const char* /*reason*/) {}

constexpr bool is_one_of(char c, const char* characters) {
  for (; *characters != '\0'; ++characters) {
    if (c == *characters) return true;
  }
  return false;
}

/// A conversion's letter and the size that its length modifier asks for (0: none was given).
struct Conversion {
  const char* end;
  char letter;
  size_t size;
};

/// Reads the conversion whose '%' stands at `at`.
constexpr Conversion read_conversion(const char* at) {
  const char* c = at + 1;
  while (is_one_of(*c, "-+ #0123456789.")) ++c;
  size_t size = 0;
  if (c[0] == 'l' && c[1] == 'l') {
    size = sizeof(long long);
    c += 2;
  } else if (c[0] == 'l') {
    size = sizeof(long);
    c += 1;
  } else if (c[0] == 'z') {
    size = sizeof(size_t);
    c += 1;
  }
  return {*c == '\0' ? c : c + 1, *c, size};
}

consteval void check_argument(const Conversion& conversion, Type type) {
  const size_t wanted = conversion.size == 0 ? sizeof(int) : conversion.size;
  const bool fits = conversion.size == 0 ? type.size <= wanted : type.size == wanted;
  if (is_one_of(conversion.letter, "di")) {
    if (type.kind != Kind::signed_integer || !fits) bad_format("this argument is no signed integer of that size");
  } else if (is_one_of(conversion.letter, "uoxX")) {
    if (type.kind != Kind::unsigned_integer || !fits)
      bad_format("this argument is no unsigned integer of that size");
  } else if (is_one_of(conversion.letter, "feg")) {
    if (type.kind != Kind::real) bad_format("this argument is no floating-point number");
  } else if (conversion.letter == 's') {
    if (type.kind != Kind::c_string) bad_format("this argument is no C string");
  } else if (conversion.letter == 'p') {
    if (type.kind != Kind::pointer) bad_format("this argument is no pointer");
  } else if (conversion.letter == '@') {
    if (type.kind != Kind::object) bad_format("this argument is no property-list value");
  } else {
    bad_format("unknown conversion");
  }
}

/// A format that was held against the types of its arguments when it was compiled.
template <class... Arguments>
struct Checked {
  consteval Checked(const char* format) : text(format) {
    const std::initializer_list<Type> types{type_of<Arguments>()...};
    const Type* type = types.begin();
    for (const char* c = format; *c != '\0';) {
      if (*c != '%') {
        ++c;
        continue;
      }
      const Conversion conversion = read_conversion(c);
      c = conversion.end;
      if (conversion.letter == '%') continue;
      if (type == types.end()) bad_format("more conversions than arguments");
      check_argument(conversion, *type++);
    }
    if (type != types.end()) bad_format("more arguments than conversions");
  }

  const char* text;
};

}  // namespace log_format

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

 private:
  CVLog();

  Logger::Handle* _logHandle;
};

}  // namespace corvane
