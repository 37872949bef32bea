#include "tools/report.h"

#include "plist/describe.h"
#include "plist/printable.h"
#include "tools/sorted.h"

namespace corvane::tools {

using plist::cast;

namespace {

// As deep as a property list may be, which the readers bound.
void add_rows(Table& table, const std::string& name, const plist::Value& value) {
  const auto* dictionary = cast<plist::Dictionary>(&value);
  const auto* array = cast<plist::Array>(&value);
  if (dictionary != nullptr && dictionary->size() > 0) {
    for (const auto& [key, inner] : sorted(*dictionary)) {
      add_rows(table, name.empty() ? std::string(key) : name + " " + std::string(key), *inner);
    }
  } else if (array != nullptr && array->size() > 0) {
    for (const plist::Ref<plist::Value>& item : array->items()) add_rows(table, name, *item);
  } else {
    const std::string text = value.is_container() ? "none" : plist::describe(&value);
    table.add_row({name, text.empty() ? "(empty)" : text});
  }
}

}  // namespace

std::string report(const plist::Dictionary& dictionary, const Screen& screen) {
  Table leaves({"", ""});
  std::string sections;
  for (const auto& [key, value] : sorted(dictionary)) {
    if (!value->is_container()) {
      add_rows(leaves, std::string(key), *value);
      continue;
    }
    Table section({"", ""});
    add_rows(section, "", *value);
    sections += "\n" + heading(plist::printable(key), screen) + "\n" + section.text(screen);
  }
  const std::string text = leaves.text(screen) + sections;
  return text.starts_with('\n') ? text.substr(1) : text;
}

}  // namespace corvane::tools
