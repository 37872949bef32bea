#include "plist/xml_leaf.h"

#include <charconv>
#include <chrono>
#include <limits>
#include <system_error>

namespace corvane::plist {

namespace {

bool is_space(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }

bool is_digit(char c) { return c >= '0' && c <= '9'; }

// Removes a leading sign. True where it was a minus.
bool take_sign(std::string_view& text) {
  const bool negative = text.starts_with('-');
  if (negative || text.starts_with('+')) text.remove_prefix(1);
  return negative;
}

bool equal_ignoring_case(std::string_view text, std::string_view lower) {
  if (text.size() != lower.size()) return false;
  for (size_t i = 0; i < text.size(); ++i) {
    if ((text[i] | 0x20) != lower[i]) return false;
  }
  return true;
}

template <class T, class... Format>
bool parse_all(std::string_view text, T& value, Format... format) {
  const char* const end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, value, format...);
  return error == std::errc() && stop == end;
}

// The number in one field of a date, or -1 where that has anything but digits.
int field(std::string_view text, size_t position, size_t size) {
  int value = 0;
  for (const char c : text.substr(position, size)) {
    if (!is_digit(c)) return -1;
    value = value * 10 + (c - '0');
  }
  return value;
}

bool has_separators(std::string_view text) {
  return text[4] == '-' && text[7] == '-' && text[10] == 'T' && text[13] == ':' && text[16] == ':';
}

// Of the form ".25"; an empty text leaves `fraction` alone.
bool parse_fraction(std::string_view text, double& fraction) {
  if (text.empty()) return true;
  if (text.size() < 2 || text[0] != '.' || !is_digit(text[1])) return false;
  return parse_all(text, fraction, std::chars_format::fixed);
}

}  // namespace

std::string_view trimmed(std::string_view text) {
  while (!text.empty() && is_space(text.front())) text.remove_prefix(1);
  while (!text.empty() && is_space(text.back())) text.remove_suffix(1);
  return text;
}

Ref<Number> parse_integer(std::string_view text) {
  text = trimmed(text);
  const bool negative = take_sign(text);
  const bool hexadecimal = text.starts_with("0x") || text.starts_with("0X");
  if (hexadecimal) text.remove_prefix(2);
  uint64_t magnitude = 0;
  if (!parse_all(text, magnitude, hexadecimal ? 16 : 10)) return nullptr;
  if (!negative) return Number::create_uint64(magnitude);
  if (magnitude > uint64_t{1} << 63) return nullptr;
  return Number::create_int64(static_cast<int64_t>(0 - magnitude));
}

Ref<Number> parse_real(std::string_view text) {
  text = trimmed(text);
  const bool negative = take_sign(text);
  double value = 0;
  if (equal_ignoring_case(text, "nan")) {
    value = std::numeric_limits<double>::quiet_NaN();
  } else if (equal_ignoring_case(text, "inf") || equal_ignoring_case(text, "infinity")) {
    value = std::numeric_limits<double>::infinity();
  } else if (text.empty() || !(is_digit(text[0]) || text[0] == '.') || !parse_all(text, value)) {
    return nullptr;
  }
  return Number::create_real(negative ? -value : value);
}

std::optional<double> parse_date(std::string_view text) {
  text = trimmed(text);
  constexpr size_t to_seconds = std::string_view("2026-11-21T03:04:05").size();
  if (text.size() <= to_seconds || !has_separators(text) || !text.ends_with('Z')) return std::nullopt;
  const std::chrono::year_month_day day(std::chrono::year(field(text, 0, 4)),
                                        std::chrono::month(static_cast<unsigned>(field(text, 5, 2))),
                                        std::chrono::day(static_cast<unsigned>(field(text, 8, 2))));
  const int hour = field(text, 11, 2);
  const int minute = field(text, 14, 2);
  const int second = field(text, 17, 2);
  double fraction = 0;
  if (int(day.year()) < 1 || !day.ok() || hour < 0 || hour > 23 || minute < 0 || minute > 59 || second < 0 ||
      second > 59 || !parse_fraction(text.substr(to_seconds, text.size() - to_seconds - 1), fraction)) {
    return std::nullopt;
  }
  constexpr std::chrono::sys_days epoch = std::chrono::year(2001) / 1 / 1;
  const int64_t days = (std::chrono::sys_days(day) - epoch).count();
  return static_cast<double>(days * 86400 + hour * 3600 + minute * 60 + second) + fraction;
}

}  // namespace corvane::plist
