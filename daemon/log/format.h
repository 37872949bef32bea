#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <span>
#include <string>
#include <type_traits>

#include "plist/value.h"

/// The formats of log lines: printf's conversions and "%@", checked against the types of their arguments when they
/// are compiled.
namespace corvane::log_format {

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

/// Whether `c` stands between the '%' of a conversion and its length modifier or letter. Most conversions have no
/// such character, and this is asked for each, so that letters, which all come behind '9', are told at once.
constexpr bool is_flag_or_width(char c) { return c <= '9' && is_one_of(c, "-+ #0123456789."); }

/// A conversion's letter and the size that its length modifier asks for (0: none was given).
struct Conversion {
  const char* end;
  char letter;
  size_t size;
};

/// Reads the conversion whose '%' stands at `at`.
constexpr Conversion read_conversion(const char* at) {
  const char* c = at + 1;
  while (is_flag_or_width(*c)) ++c;
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

/// A format that was checked against the types of its arguments when it was compiled.
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

/// Appends the formatted message. Precondition: `Checked` has checked the format with these arguments. Throws
/// std::bad_alloc.
void append_message(std::string& line, const char* format, std::span<const Argument> arguments);

}  // namespace corvane::log_format
