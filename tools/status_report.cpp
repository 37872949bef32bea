#include "tools/status_report.h"

#include <cstdint>
#include <cstdio>
#include <iterator>
#include <set>
#include <string_view>
#include <vector>

#include "plist/describe.h"
#include "tools/report.h"

// The services are three tables, with a column for each service: what they do, why connections were closed, and
// errors by code. The rest is shown as it comes.

namespace corvane::tools {

using plist::cast;
using plist::Ref;

namespace {

constexpr std::string_view services_key = "Services";
constexpr std::string_view process_key = "Process";
constexpr std::string_view bytes_suffix = "Bytes";

std::string text_of(const plist::Dictionary* dictionary, std::string_view key) {
  const plist::Value* value = dictionary == nullptr ? nullptr : dictionary->get(key);
  return value == nullptr ? "-" : plist::describe(value);
}

// The keys of all columns whose values are no containers.
std::set<std::string_view> leaf_keys(const std::vector<const plist::Dictionary*>& columns) {
  std::set<std::string_view> keys;
  for (const plist::Dictionary* column : columns) {
    if (column == nullptr) continue;
    for (const plist::Dictionary::Entry& entry : column->entries()) {
      if (!entry.value->is_container()) keys.insert(entry.key->view());
    }
  }
  return keys;
}

constexpr const char* service_names[] = {"Public", "Admin", "Notifications"};

// With a column for each service, and its name above that.
std::string table_of(const char* title, const std::vector<const plist::Dictionary*>& columns,
                     const Screen& screen) {
  std::vector<std::string> titles{title};
  titles.insert(titles.end(), std::begin(service_names), std::end(service_names));
  Table table(titles);
  for (const std::string_view key : leaf_keys(columns)) {
    std::vector<std::string> row{std::string(key)};
    for (const plist::Dictionary* column : columns) row.push_back(text_of(column, key));
    table.add_row(row);
  }
  return table.text(screen);
}

std::vector<const plist::Dictionary*> inner(const std::vector<const plist::Dictionary*>& columns,
                                            std::string_view key) {
  std::vector<const plist::Dictionary*> found;
  for (const plist::Dictionary* column : columns) {
    found.push_back(column == nullptr ? nullptr : cast<plist::Dictionary>(column->get(key)));
  }
  return found;
}

std::string services_tables(const plist::Dictionary& services, const Screen& screen) {
  std::vector<const plist::Dictionary*> columns;
  for (const char* name : service_names) columns.push_back(cast<plist::Dictionary>(services.get(name)));
  std::string text = table_of("Services", columns, screen);
  for (const char* section : {"Closed", "Errors"}) {
    text += "\n" + table_of(section, inner(columns, section), screen);
  }
  return text;
}

// Seconds in days, hours and minutes.
std::string duration_text(int64_t seconds) {
  char text[64];
  std::snprintf(text, sizeof text, "%lld d %02d:%02d:%02d", static_cast<long long>(seconds / 86400),
                static_cast<int>(seconds / 3600 % 24), static_cast<int>(seconds / 60 % 60),
                static_cast<int>(seconds % 60));
  return text;
}

std::string memory_text(int64_t bytes) {
  char text[64];
  std::snprintf(text, sizeof text, "%.1f MiB", static_cast<double>(bytes) / (1 << 20));
  return text;
}

// The same entries, with durations and memory in units that a person reads.
Ref<plist::Dictionary> with_units(const plist::Dictionary& process) {
  const Ref<plist::MutableDictionary> shown = plist::MutableDictionary::copy(process);
  for (const plist::Dictionary::Entry& entry : process.entries()) {
    const auto* number = cast<plist::Number>(entry.value.get());
    if (number == nullptr) continue;
    if (entry.key->view() == "Uptime") shown->set("Uptime", plist::String::create(duration_text(number->int64())));
    std::string_view key = entry.key->view();
    if (!key.ends_with(bytes_suffix)) continue;
    shown->remove(key);
    key.remove_suffix(bytes_suffix.size());
    shown->set(key, plist::String::create(memory_text(number->int64())));
  }
  return shown;
}

}  // namespace

std::string status_report(const plist::Dictionary& status, const Screen& screen) {
  const auto* services = cast<plist::Dictionary>(status.get(services_key));
  if (services == nullptr) return report(status, screen);
  const auto others = plist::MutableDictionary::copy(status);
  others->remove(services_key);
  if (const auto* process = cast<plist::Dictionary>(status.get(process_key))) {
    others->set(process_key, with_units(*process));
  }
  return report(*others, screen) + "\n" + services_tables(*services, screen);
}

}  // namespace corvane::tools
