#include <CLI/CLI.hpp>

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <string>
#include <system_error>

#include "client/methods.h"
#include "client/subscription.h"
#include "plist/printable.h"
#include "tools/ark.h"
#include "tools/command.h"
#include "tools/commands.h"
#include "tools/json.h"
#include "tools/print.h"
#include "wire/limits.h"
#include "wire/messages.h"

namespace corvane::tools {

using client::Outcome;
using plist::Ref;
using std::chrono::steady_clock;

namespace {

constexpr double shortest_timeout = 0.001, longest_timeout = 1e9;

struct Options {
  Domain domain;
  std::string key;
  bool json = false;
  int64_t count = 0;   // 0: no end
  double timeout = 0;  // seconds; 0: none
};

// The parser's own check takes a number that does not fit for the largest one that does.
std::string fault_of_count(const std::string& given) {
  int64_t count = 0;
  const auto [end, error] = std::from_chars(given.data(), given.data() + given.size(), count);
  const bool is_whole = error == std::errc() && end == given.data() + given.size();
  return is_whole && count > 0 ? "" : "not a number from 1 to " + std::to_string(INT64_MAX);
}

// The parser's own check takes "nan".
std::string fault_of_timeout(const std::string& given) {
  char* end = nullptr;
  const double seconds = std::strtod(given.c_str(), &end);
  const bool is_in_range = *end == '\0' && seconds >= shortest_timeout && seconds <= longest_timeout;
  return is_in_range ? "" : "not a number from 0.001 to 1000000000";
}

void add_end(CLI::App& command, Options& options, const char* what) {
  command.add_option("--count", options.count, what)->type_name("N")->check(CLI::Validator(fault_of_count, ""));
  command.add_option("--timeout", options.timeout, "End after this time")
      ->type_name("SECONDS")
      ->check(CLI::Validator(fault_of_timeout, ""));
}

// What is posted from its start on, until the timeout is over.
class Following {
 public:
  explicit Following(const Options& options) : options_(options) {
    std::string detail;
    const Outcome outcome = subscription_.open(detail);
    check(outcome, detail);
  }

  /// False when the timeout is over. Throws Failure when the daemon ends.
  bool next(wire::Notification& notification) {
    std::string detail;
    const Outcome outcome = subscription_.next(notification, detail, time_left());
    if (outcome != Outcome::timed_out) check(outcome, detail);
    return outcome == Outcome::answered;
  }

 private:
  std::chrono::milliseconds time_left() const {
    if (options_.timeout <= 0) return client::Subscription::no_timeout;
    const auto left = std::chrono::duration<double>(options_.timeout) - (steady_clock::now() - start_);
    return std::max(std::chrono::ceil<std::chrono::milliseconds>(left), std::chrono::milliseconds(0));
  }

  const Options& options_;
  const steady_clock::time_point start_ = steady_clock::now();
  client::Subscription subscription_;
};

// A script that waits for so many wants to know whether they came.
void end_at_timeout(const Options& options, int64_t printed) {
  if (options.count == 0) return;
  throw Failure{failed, "in time came " + std::to_string(printed) + " of " + std::to_string(options.count)};
}

// Local time, to the millisecond.
std::string time_of_day() {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  tm local{};
  localtime_r(&now.tv_sec, &local);
  char text[32];
  const size_t length = std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local);
  std::snprintf(text + length, sizeof text - length, ".%03ld", now.tv_nsec / 1000000);
  return text;
}

std::string notification_line(const wire::Notification& notification, bool json) {
  const bool missed = notification.missed > 0;
  if (json) {
    const Ref<plist::MutableDictionary> line = plist::MutableDictionary::create();
    if (missed) line->set(wire::missed_key, plist::Number::create_int64(notification.missed));
    if (!missed) line->set(wire::notification_key, plist::String::create(notification.name));
    return to_json_line(*line);
  }
  return time_of_day() + " " +
         (missed ? "missed " + std::to_string(notification.missed) : plist::printable(notification.name));
}

void show_notifications(const Options& options) {
  Following following(options);
  wire::Notification notification;
  for (int64_t printed = 0; options.count == 0 || printed < options.count; ++printed) {
    if (!following.next(notification)) return end_at_timeout(options, printed);
    print(notification_line(notification, options.json) + "\n");
  }
}

// ---- ark watch ----------------------------------------------------------------------------------------

// The entry, or an empty dictionary where there is none. A connection of its own, because the daemon takes few on
// its admin socket, and a watch may last for days.
Ref<plist::Dictionary> entry_now(const client::ArkKey& key) {
  client::Connection connection(wire::admin_service);
  Ref<plist::Dictionary> reply = reply_of([&] { return client::copy_ark_value(connection, key); });
  return reply ? reply : Ref<plist::Dictionary>(plist::MutableDictionary::create());
}

// Registers the watch, and returns the name of its notification.
std::string name_of_watch(const client::ArkKey& key) {
  client::Connection connection(wire::admin_service);
  const Ref<plist::Dictionary> watched = reply_or([&] { return client::watch_ark_value(connection, key); },
                                                  "the daemon answered no name of a notification");
  return std::string(entry<plist::String>(*watched, wire::notification_key).view());
}

void print_entry(const plist::Dictionary& ark_entry, bool json) {
  if (json) return print(to_json_line(ark_entry) + "\n");
  const plist::Value* value = ark_entry.get(wire::value_key);
  print(time_of_day() + " " + (value == nullptr ? "(no value)" : to_line(*value)) + "\n");
}

// Subscribes before the watch is registered, and reads the value after that, so that no change is missed in
// between. Where notifications were missed, only a value that differs counts as a change.
void watch(const Options& options) {
  const client::ArkKey key{options.domain, options.key};
  if (options.key.empty()) throw Failure{wrong_usage, "KEY: must not be empty"};
  check_key_size(composed_key(options.domain, options.key), wire::watched_key_size);
  Following following(options);
  const std::string name = name_of_watch(key);
  Ref<plist::Dictionary> shown = entry_now(key);
  print_entry(*shown, options.json);
  wire::Notification notification;
  for (int64_t printed = 0; options.count == 0 || printed < options.count;) {
    if (!following.next(notification)) return end_at_timeout(options, printed);
    if (notification.missed == 0 && notification.name != name) continue;
    const Ref<plist::Dictionary> now = entry_now(key);
    if (notification.missed > 0 && plist::equal(now.get(), shown.get())) continue;
    shown = now;
    print_entry(*shown, options.json);
    ++printed;
  }
}

}  // namespace

void add_notification_commands(CLI::App& app) {
  auto options = std::make_shared<Options>();
  CLI::App* command = app.add_subcommand("notifications", "Print each system-wide notification as it is posted");
  command->add_flag("--json", options->json, "Print a JSON object a line");
  add_end(*command, *options, "End after so many");
  command->callback([options] { show_notifications(*options); });
}

void add_ark_watch_command(CLI::App& ark) {
  auto options = std::make_shared<Options>();
  CLI::App* command = ark.add_subcommand("watch", "Print a value, and again after each change");
  add_domain(*command, options->domain, "The domain of the key");
  add_key(*command, options->key, "The key")->required();
  command->add_flag("--json", options->json, "Print a JSON object a line");
  add_end(*command, *options, "End after so many changes");
  command->callback([options] { watch(*options); });
}

}  // namespace corvane::tools
