#include <CLI/CLI.hpp>

#include <chrono>
#include <cstdio>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "client/methods.h"
#include "plist/printable.h"
#include "tools/command.h"
#include "tools/commands.h"
#include "tools/json.h"
#include "tools/open_metrics.h"
#include "tools/report.h"
#include "tools/status_report.h"
#include "tools/table.h"
#include "wire/methods.h"

namespace corvane::tools {

using plist::Ref;
using std::chrono::steady_clock;

namespace {

struct Options {
  bool json = false;
  bool openmetrics = false;
  Format format;
  std::vector<std::string> properties;
};

// The time runs from connecting to the whole answer.
void ping(bool json) {
  client::Connection connection(wire::public_service);
  const auto start = steady_clock::now();
  const Ref<plist::Dictionary> reply =
      reply_or([&] { return client::copy_version(connection); }, "the daemon answered no version");
  const std::chrono::duration<double> time = steady_clock::now() - start;
  const auto& version = entry<plist::String>(*reply, wire::version_key);
  if (json) {
    const Ref<plist::MutableDictionary> answer = plist::MutableDictionary::copy(*reply);
    answer->set("Seconds", plist::Number::create_real(time.count()));
    return print(to_json(*answer) + "\n");
  }
  char milliseconds[32];
  std::snprintf(milliseconds, sizeof milliseconds, "%.3f", time.count() * 1000);
  print("corvaned " + plist::printable(version.view()) + " answered in " + milliseconds + " ms\n");
}

void show_status(const Options& options) {
  client::Connection connection(wire::admin_service);
  const Ref<plist::Dictionary> status =
      reply_or([&] { return client::copy_status(connection); }, "the daemon answered no status");
  if (options.json) return print(to_json(*status) + "\n");
  print(options.openmetrics ? open_metrics(*status) : status_report(*status, screen()));
}

// The names of the properties without an answer, of each of which the daemon says "No NAME".
std::string missing_names(const plist::Array& errors) {
  constexpr std::string_view prefix = "No ";
  std::string line;
  for (const Ref<plist::Value>& item : errors.items()) {
    const auto* error = plist::cast<plist::String>(item.get());
    if (error == nullptr) continue;
    std::string_view name = error->view();
    if (name.starts_with(prefix)) name.remove_prefix(prefix.size());
    line += (line.empty() ? "" : "; ") + std::string(name);
  }
  return line;
}

// Tells on standard error, and in the exit status, which properties have no answer.
void show_device(const Options& options) {
  client::Connection connection(wire::admin_service);
  const Ref<plist::Dictionary> reply =
      reply_or([&] { return client::copy_device_type(connection, options.properties); },
               "the daemon answered no device type");
  const std::string missing = missing_names(entry<plist::Array>(*reply, wire::errors_key));
  if (options.json) {
    print(to_json(*reply) + "\n");
  } else {
    const Ref<plist::MutableDictionary> shown = plist::MutableDictionary::copy(*reply);
    shown->remove(wire::errors_key);
    if (options.properties.empty()) shown->remove(wire::properties_key);
    print(report(*shown, screen()));
  }
  if (!missing.empty()) throw Failure{nothing_there, "no answer: " + missing};
}

// For a person the value stands for a query that has one.
Ref<plist::Value> without_value_key(const Ref<plist::Value>& query) {
  const auto* result = plist::cast<plist::Dictionary>(query.get());
  plist::Value* value = result == nullptr ? nullptr : result->get(wire::value_key);
  return value == nullptr ? query : Ref<plist::Value>(value);
}

Ref<plist::Dictionary> for_a_person(const plist::Dictionary& radio) {
  const Ref<plist::MutableDictionary> shown = plist::MutableDictionary::copy(radio);
  if (const auto* queries = plist::cast<plist::Dictionary>(radio.get("Queries"))) {
    const Ref<plist::MutableDictionary> results = plist::MutableDictionary::create();
    for (const plist::Dictionary::Entry& query : queries->entries()) {
      results->set(query.key, without_value_key(query.value));
    }
    shown->set("Queries", results);
  }
  return shown;
}

void show_radio(bool json) {
  client::Connection connection(wire::admin_service);
  const Ref<plist::Dictionary> radio =
      reply_or([&] { return client::copy_radio(connection); }, "the daemon answered nothing about the radio");
  print(json ? to_json(*radio) + "\n" : report(*for_a_person(*radio), screen()));
}

void show_carrier(const Format& format) {
  client::Connection connection(wire::admin_service);
  const Ref<plist::Dictionary> reply =
      reply_or([&] { return client::copy_carrier_bundle(connection); }, "there is no carrier bundle");
  print(formatted(entry<plist::Dictionary>(*reply, wire::carrier_bundle_key), format));
}

CLI::App* add(CLI::App& app, const char* name, const char* help, const std::shared_ptr<Options>& options) {
  CLI::App* command = app.add_subcommand(name, help);
  add_json(*command, options->json);
  return command;
}

}  // namespace

void add_device_commands(CLI::App& app) {
  auto options = std::make_shared<Options>();
  add(app, "ping", "Ask the daemon for its version, and print how long that took", options)->callback([options] {
    ping(options->json);
  });
  CLI::App* status = add(app, "status", "Print how the daemon is", options);
  status->add_flag("--openmetrics", options->openmetrics, "Print metrics for a monitoring system")
      ->excludes("--json");
  status->callback([options] { show_status(*options); });
  CLI::App* device = add(app, "device", "Print the device type and device properties", options);
  must_be_utf8(device->add_option("PROPERTY", options->properties, "Names of properties"));
  device->callback([options] { show_device(*options); });
  add(app, "radio", "Print what the telephony service says, and what the ark has of it", options)
      ->callback([options] { show_radio(options->json); });
  CLI::App* carrier = app.add_subcommand("carrier", "Print the bundle of the selected carrier");
  add_format(*carrier, options->format);
  carrier->callback([options] { show_carrier(options->format); });
}

}  // namespace corvane::tools
