#include "tools/print.h"

#include "plist/describe.h"
#include "plist/printable.h"
#include "tools/sorted.h"

namespace corvane::tools {

using plist::cast;

namespace {

void print(const plist::Value& value, const std::string& indent, std::string& out);

void print_items(std::span<const plist::Ref<plist::Value>> items, const std::string& indent, const char* brackets,
                 std::string& out) {
  out += brackets[0];
  for (const plist::Ref<plist::Value>& item : items) {
    out += "\n" + indent + "  ";
    print(*item, indent + "  ", out);
  }
  if (!items.empty()) out += "\n" + indent;
  out += brackets[1];
}

void print_entries(const plist::Dictionary& dictionary, const std::string& indent, std::string& out) {
  out += '{';
  for (const auto& [key, value] : sorted(dictionary)) {
    out += "\n" + indent + "  ";
    plist::append_quoted(out, key);
    out += ": ";
    print(*value, indent + "  ", out);
  }
  if (dictionary.size() > 0) out += "\n" + indent;
  out += '}';
}

void print(const plist::Value& value, const std::string& indent, std::string& out) {
  if (const auto* dictionary = cast<plist::Dictionary>(&value)) return print_entries(*dictionary, indent, out);
  if (const auto* array = cast<plist::Array>(&value)) return print_items(array->items(), indent, "[]", out);
  if (const auto* set = cast<plist::Set>(&value)) return print_items(set->items(), indent, "()", out);
  if (const auto* string = cast<plist::String>(&value)) return plist::append_quoted(out, string->view());
  out += plist::describe(&value);
}

}  // namespace

std::string to_text(const plist::Value& value) {
  std::string out;
  print(value, "", out);
  return out;
}

std::string to_line(const plist::Value& value) {
  const auto* string = cast<plist::String>(&value);
  if (string == nullptr) return plist::describe(&value);
  std::string out;
  plist::append_quoted(out, string->view());
  return out;
}

}  // namespace corvane::tools
