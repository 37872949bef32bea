#include "plist/describe.h"

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <vector>

#include "plist/printable.h"
#include "plist/reader.h"

namespace corvane::plist {

namespace {

using std::chrono::sys_days;
using std::chrono::sys_seconds;

constexpr sys_seconds epoch = sys_days(std::chrono::year(2001) / 1 / 1);
constexpr sys_seconds first_second = sys_days(std::chrono::year(1) / 1 / 1);
constexpr sys_seconds behind_last_second = sys_days(std::chrono::year(10000) / 1 / 1);

constexpr size_t data_bytes_shown = 16;

void append_hex(std::string& out, uint8_t byte) {
  constexpr char digits[] = "0123456789abcdef";
  out += digits[byte >> 4];
  out += digits[byte & 0xF];
}

void append_data(std::string& out, std::string_view bytes) {
  out += '<' + std::to_string(bytes.size()) + " bytes";
  if (!bytes.empty()) out += ": ";
  for (const char c : bytes.substr(0, data_bytes_shown)) append_hex(out, static_cast<uint8_t>(c));
  if (bytes.size() > data_bytes_shown) out += "...";
  out += '>';
}

void append_real(std::string& out, double real) {
  char digits[32];
  const auto end = std::to_chars(digits, digits + sizeof digits, real).ptr;
  const std::string_view text(digits, static_cast<size_t>(end - digits));
  out += text;
  if (text.find_first_not_of("-0123456789") == std::string_view::npos) out += ".0";
}

void append_number(std::string& out, const Number& number) {
  if (number.type() == Number::Type::real) return append_real(out, number.real());
  out += number.type() == Number::Type::uint64 ? std::to_string(number.uint64()) : std::to_string(number.int64());
}

void append_date(std::string& out, const Date& date) {
  const std::string text = date_text(date);
  if (!text.empty()) {
    out += text;
    return;
  }
  out += "date(";
  append_real(out, date.seconds());
  out += ')';
}

void append(std::string& out, const Value& value, unsigned depth);

void append_items(std::string& out, std::span<const Ref<Value>> items, unsigned depth) {
  for (size_t i = 0; i < items.size(); ++i) {
    if (i > 0) out += ", ";
    append(out, *items[i], depth);
  }
}

void append_entries(std::string& out, const Dictionary& dictionary, unsigned depth) {
  std::vector<const Dictionary::Entry*> sorted;
  sorted.reserve(dictionary.size());
  for (const Dictionary::Entry& entry : dictionary.entries()) sorted.push_back(&entry);
  std::sort(sorted.begin(), sorted.end(),
            [](const auto* a, const auto* b) { return a->key->view() < b->key->view(); });
  for (size_t i = 0; i < sorted.size(); ++i) {
    if (i > 0) out += ", ";
    append_quoted(out, sorted[i]->key->view());
    out += ": ";
    append(out, *sorted[i]->value, depth);
  }
}

void append_container(std::string& out, const Value& value, unsigned depth) {
  if (depth > max_depth) {
    out += "...";
  } else if (const auto* dictionary = cast<Dictionary>(&value)) {
    out += '{';
    append_entries(out, *dictionary, depth + 1);
    out += '}';
  } else if (const auto* array = cast<Array>(&value)) {
    out += '[';
    append_items(out, array->items(), depth + 1);
    out += ']';
  } else {
    out += "set(";
    append_items(out, cast<Set>(&value)->items(), depth + 1);
    out += ')';
  }
}

void append(std::string& out, const Value& value, unsigned depth) {
  switch (value.kind()) {
    case Kind::string:
      return append_quoted(out, cast<String>(&value)->view());
    case Kind::data:
      return append_data(out, cast<Data>(&value)->bytes());
    case Kind::date:
      return append_date(out, *cast<Date>(&value));
    case Kind::number:
      return append_number(out, *cast<Number>(&value));
    case Kind::boolean:
      out += cast<Boolean>(&value)->value() ? "true" : "false";
      return;
    default:
      return append_container(out, value, depth);
  }
}

}  // namespace

std::string describe(const Value* value) {
  if (value == nullptr) return "(null)";
  if (const auto* string = cast<String>(value)) return std::string(string->view());
  std::string text;
  append(text, *value, 1);
  return text;
}

std::string date_text(const Date& date) {
  const double whole = std::floor(date.seconds());
  const auto seconds_of = [](sys_seconds time) { return static_cast<double>((time - epoch).count()); };
  if (!(whole >= seconds_of(first_second) && whole < seconds_of(behind_last_second))) return {};
  const sys_seconds time = epoch + std::chrono::seconds(static_cast<int64_t>(whole));
  const auto day = std::chrono::floor<std::chrono::days>(time);
  const std::chrono::year_month_day date_of(day);
  const std::chrono::hh_mm_ss clock(time - day);
  char text[64];
  const int length = std::snprintf(text, sizeof text, "%04d-%02u-%02uT%02d:%02d:%02dZ", int(date_of.year()),
                                   unsigned(date_of.month()), unsigned(date_of.day()), int(clock.hours().count()),
                                   int(clock.minutes().count()), int(clock.seconds().count()));
  return {text, static_cast<size_t>(length)};
}

}  // namespace corvane::plist
