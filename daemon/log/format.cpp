#include "daemon/log/format.h"

#include <charconv>
#include <cstdio>
#include <cstring>
#include <iterator>

#include "plist/describe.h"

namespace corvane::log_format {

namespace {

template <class T>
void append_with(std::string& line, const std::string& specification, T value) {
  const int length = std::snprintf(nullptr, 0, specification.c_str(), value);
  if (length <= 0) return;
  const size_t before = line.size();
  line.resize(before + static_cast<size_t>(length) + 1);
  std::snprintf(line.data() + before, static_cast<size_t>(length) + 1, specification.c_str(), value);
  line.pop_back();
}

template <class Integer>
void append_digits(std::string& line, Integer value, int base) {
  char digits[32];
  line.append(digits, std::to_chars(digits, std::end(digits), value, base).ptr);
}

// The usual conversions, without snprintf(3), which takes many times as long. False for others.
bool append_plain(std::string& line, const char* start, const Conversion& conversion, const Argument& argument) {
  if (is_flag_or_width(start[1])) return false;
  switch (conversion.letter) {
    case 's':
      line += argument.c_string == nullptr ? "(null)" : argument.c_string;
      return true;
    case 'd':
    case 'i':
      append_digits(line, argument.signed_integer, 10);
      return true;
    case 'u':
    case 'o':
    case 'x':
      append_digits(line, argument.unsigned_integer,
                    conversion.letter == 'u'   ? 10
                    : conversion.letter == 'o' ? 8
                                               : 16);
      return true;
    case '@':
      line += plist::describe(argument.object);
      return true;
    default:
      return false;
  }
}

// The conversion as the format has it, but for integers with 'll', because `Argument` has widened them to 64 bits.
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
  if (append_plain(line, start, conversion, argument)) return;
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

}  // namespace

void append_message(std::string& line, const char* format, std::span<const Argument> arguments) {
  size_t next = 0;
  for (const char* c = format;;) {
    const auto plain = static_cast<size_t>(strchrnul(c, '%') - c);
    line.append(c, plain);
    c += plain;
    if (*c == '\0') return;
    const Conversion conversion = log_format::read_conversion(c);
    if (conversion.letter == '%') {
      line += '%';
    } else {
      append_argument(line, c, conversion, arguments[next++]);
    }
    c = conversion.end;
  }
}

}  // namespace corvane::log_format
