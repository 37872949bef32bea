#include "tools/open_metrics.h"

#include <cmath>
#include <initializer_list>
#include <string_view>
#include <utility>
#include <vector>

#include "tools/sorted.h"

// A metric is written once, with a line # HELP and a line # TYPE before all of its samples. OpenMetrics names a
// counter without the "_total" that its samples have. Readers of the older Prometheus format then find samples
// without a type, which they accept, and take the last line, # EOF, for a comment.

namespace corvane::tools {

using plist::cast;

namespace {

constexpr double unix_time_of_2001 = 978307200;

using Labels = std::vector<std::pair<std::string, std::string>>;

struct Service {
  const char* key;
  const char* label;
};
constexpr Service services[] = {{"Public", "public"}, {"Admin", "admin"}, {"Notifications", "notifications"}};

std::string escaped(std::string_view label) {
  std::string out;
  for (const char c : label) {
    if (c == '\\' || c == '"') out += '\\';
    if (c == '\n') {
      out += "\\n";
    } else {
      out += c;
    }
  }
  return out;
}

std::string labels_text(const Labels& labels) {
  std::string text;
  for (const auto& [name, value] : labels) {
    text += (text.empty() ? "{" : ",") + name + "=\"" + escaped(value) + "\"";
  }
  return text.empty() ? text : text + "}";
}

// Of an integer, a Boolean or a date; empty for every other value, and for none.
std::string sample_value(const plist::Value* value) {
  if (const auto* boolean = cast<plist::Boolean>(value)) return boolean->value() ? "1" : "0";
  if (const auto* date = cast<plist::Date>(value)) {
    return std::to_string(std::llround(date->seconds() + unix_time_of_2001));
  }
  const auto* number = cast<plist::Number>(value);
  if (number == nullptr || !number->is_integer()) return "";
  if (number->type() == plist::Number::Type::uint64) return std::to_string(number->uint64());
  return std::to_string(number->int64());
}

/// What lies behind the keys, or null.
const plist::Value* find(const plist::Dictionary& status, std::initializer_list<std::string_view> keys) {
  const plist::Value* value = &status;
  for (const std::string_view key : keys) {
    const auto* dictionary = cast<plist::Dictionary>(value);
    value = dictionary == nullptr ? nullptr : dictionary->get(key);
  }
  return value;
}

class Metric {
 public:
  Metric(const char* name, const char* type, const char* help)
      : sample_name_(name + std::string(type == std::string_view("counter") ? "_total" : "")),
        head_(std::string("# HELP ") + name + " " + help + "\n# TYPE " + name + " " + type + "\n") {}

  Metric& add(const Labels& labels, const std::string& value) {
    if (!value.empty()) samples_ += sample_name_ + labels_text(labels) + " " + value + "\n";
    return *this;
  }

  // Nothing where there is no sample.
  std::string text() const { return samples_.empty() ? "" : head_ + samples_; }

 private:
  const std::string sample_name_;
  const std::string head_;
  std::string samples_;
};

std::string build_info(const plist::Dictionary& status) {
  const auto* version = cast<plist::String>(status.get("Version"));
  const auto* platform = cast<plist::String>(status.get("Platform"));
  if (version == nullptr || platform == nullptr) return "";
  const Labels labels{{"version", std::string(version->view())}, {"platform", std::string(platform->view())}};
  return Metric("corvaned_build_info", "gauge", "The version and the platform that run.").add(labels, "1").text();
}

struct Single {
  const char* name;
  const char* type;
  const char* help;
  const char* section;
  const char* key;
};

constexpr Single singles[] = {
    {"corvaned_start_time_seconds", "gauge", "When the daemon was started, in Unix time.", "Process", "Started"},
    {"corvaned_uptime_seconds", "gauge", "How long the daemon has run.", "Process", "Uptime"},
    {"corvaned_resident_memory_bytes", "gauge", "Resident memory.", "Process", "ResidentBytes"},
    {"corvaned_private_memory_bytes", "gauge", "Resident memory that no file backs.", "Process", "PrivateBytes"},
    {"corvaned_open_fds", "gauge", "Open descriptors.", "Process", "Descriptors"},
    {"corvaned_max_fds", "gauge", "Descriptors that may be open.", "Process", "DescriptorLimit"},
    {"corvaned_ark_entries", "gauge", "Entries of the data ark.", "Ark", "Entries"},
    {"corvaned_ark_unsaved_changes", "gauge", "Changes of the ark that are not stored.", "Ark", "Unsaved"},
    {"corvaned_ark_stores", "counter", "Stores of the ark.", "Ark", "Stores"},
    {"corvaned_ark_failed_stores", "counter", "Stores of the ark that failed.", "Ark", "FailedStores"},
    {"corvaned_ark_was_unreadable", "gauge", "1 where the ark's file could not be read at the start.", "Ark",
     "WasUnreadable"},
    {"corvaned_log_disk_copy_works", "gauge", "1 where the disk took the last log line.", "Log", "DiskCopyWorks"},
    {"corvaned_log_dropped_lines", "counter", "Log lines that standard error did not take.", "Log",
     "DroppedLines"},
    {"corvaned_radio_available", "gauge", "1 where the telephony service can be asked.", "Radio", "Available"},
    {"corvaned_radio_bus_connected", "gauge", "1 where the system bus is connected.", "Radio", "BusConnected"},
    {"corvaned_radio_events", "counter", "Events of the telephony service that were handled.", "Radio", "Events"},
    {"corvaned_radio_changes", "counter", "Look-ups that reported a change.", "Radio", "Changes"},
};

struct PerService {
  const char* name;
  const char* type;
  const char* help;
  const char* key;
};

constexpr PerService per_service[] = {
    {"corvaned_connections", "gauge", "Open connections.", "Open"},
    {"corvaned_connections_limit", "gauge", "Connections that may be open.", "Limit"},
    {"corvaned_connections_accepted", "counter", "Connections accepted.", "Accepted"},
    {"corvaned_requests", "counter", "Requests answered.", "Answered"},
    {"corvaned_notifications_posted", "counter", "Notifications posted.", "Posted"},
    {"corvaned_notifications_missed", "counter", "Notifications that subscribers missed.", "Missed"},
};

std::string service_metric(const plist::Dictionary& status, const PerService& row) {
  Metric metric(row.name, row.type, row.help);
  for (const Service& service : services) {
    metric.add({{"service", service.label}}, sample_value(find(status, {"Services", service.key, row.key})));
  }
  return metric.text();
}

// A sample for each key of a dictionary that every service has, with the key as a label.
std::string keyed_metric(const plist::Dictionary& status, Metric metric, const char* label, const char* key) {
  for (const Service& service : services) {
    const auto* counts = cast<plist::Dictionary>(find(status, {"Services", service.key, key}));
    if (counts == nullptr) continue;
    for (const auto& [name, value] : sorted(*counts)) {
      metric.add({{"service", service.label}, {label, std::string(name)}}, sample_value(value));
    }
  }
  return metric.text();
}

}  // namespace

std::string open_metrics(const plist::Dictionary& status) {
  std::string text = build_info(status);
  for (const Single& row : singles) {
    text +=
        Metric(row.name, row.type, row.help).add({}, sample_value(find(status, {row.section, row.key}))).text();
  }
  for (const PerService& row : per_service) text += service_metric(status, row);
  text += keyed_metric(status,
                       Metric("corvaned_request_errors", "counter", "Requests answered with an error, by code."),
                       "code", "Errors");
  text += keyed_metric(
      status, Metric("corvaned_connections_closed", "counter", "Connections refused or closed by the daemon."),
      "reason", "Closed");
  return text + "# EOF\n";
}

}  // namespace corvane::tools
