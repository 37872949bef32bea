#include <CLI/CLI.hpp>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "client/methods.h"
#include "plist/printable.h"
#include "tools/ark.h"
#include "tools/command.h"
#include "tools/commands.h"
#include "tools/json.h"
#include "tools/print.h"
#include "tools/table.h"
#include "wire/limits.h"
#include "wire/methods.h"

namespace corvane::tools {

using plist::Ref;

namespace {

// How much of a value stands in the line about its change.
constexpr size_t value_width = 60;

struct Options {
  Domain domain;
  std::string key;
  std::string value;
  std::vector<unsigned> attributes;
  Format format;
  bool json = false;
  bool none = false;

  client::ArkKey ark_key() const { return {domain, key}; }
  std::string composed() const { return composed_key(domain, key); }
};

const char* attribute_name(int64_t attribute) {
  switch (attribute) {
    case 1:
      return " (not stored)";
    case 5:
      return " (change uncounted)";
    case 7:
      return " (also not stored)";
    default:
      return "";
  }
}

std::string attributes_text(const plist::Array& attributes) {
  std::string text;
  for (const Ref<plist::Value>& attribute : attributes.items()) {
    const auto* number = plist::cast<plist::Number>(attribute.get());
    if (number == nullptr) continue;
    text += (text.empty() ? "" : ", ") + std::to_string(number->int64()) + attribute_name(number->int64());
  }
  return text;
}

std::string no_entry(const Options& options) { return "there is no entry " + options.composed(); }

void get(const Options& options) {
  client::Connection connection(wire::admin_service);
  const Ref<plist::Dictionary> reply =
      reply_or([&] { return client::copy_ark_value(connection, options.ark_key()); }, no_entry(options));
  const plist::Value* value = reply->get(wire::value_key);
  if (value == nullptr) throw Failure{failed, "the daemon's answer has no value"};
  std::string text = formatted(*value, options.format);
  const std::string attributes = attributes_text(entry<plist::Array>(*reply, wire::attributes_key));
  const bool is_for_a_person = !options.format.json && !options.format.xml;
  if (is_for_a_person && !attributes.empty()) text += "attributes: " + attributes + "\n";
  print(text);
}

// One line about a change: what was done to the entry, and the value before.
void tell_change(const std::string& what, const Options& options, const plist::Dictionary* before) {
  const plist::Value* value = before == nullptr ? nullptr : before->get(wire::value_key);
  const std::string was = value == nullptr ? "it is new" : "it was " + cut_to_width(to_line(*value), value_width);
  print(what + " " + plist::printable(options.composed()) + "; " + was + "\n");
}

void set(const Options& options) {
  const Ref<plist::Value> value =
      options.json ? from_json(options.value) : Ref<plist::Value>(plist::String::create(options.value));
  check_key_size(options.composed(), wire::ark_key_size);
  client::Connection connection(wire::admin_service);
  tell_change("set", options,
              reply_of_change([&] { return client::set_ark_value(connection, options.ark_key(), value); }).get());
}

void remove(const Options& options) {
  client::Connection connection(wire::admin_service);
  const Ref<plist::Dictionary> before =
      reply_of_change([&] { return client::remove_ark_value(connection, options.ark_key()); });
  if (!before) throw Failure{nothing_there, no_entry(options)};
  tell_change("removed", options, before.get());
}

// A page at a time, so that an ark of any size can be listed. The columns of each page are aligned on their own.
void list(const Options& options) {
  client::Connection connection(wire::admin_service);
  ArkPages pages(connection, options.domain);
  bool any = false;
  while (const Ref<plist::Array> page = pages.next()) {
    Table table(any ? std::vector<std::string>(3) : std::vector<std::string>{"KEY", "ATTRIBUTES", "VALUE"});
    for (const Ref<plist::Value>& item : page->items()) {
      const auto* found = plist::cast<plist::Dictionary>(item.get());
      if (found == nullptr || found->get(wire::value_key) == nullptr) continue;
      table.add_row({std::string(entry<plist::String>(*found, wire::key_key).view()),
                     attributes_text(entry<plist::Array>(*found, wire::attributes_key)),
                     to_line(*found->get(wire::value_key))});
    }
    if (!table.empty()) print(table.text(screen()));
    any |= !table.empty();
  }
  if (!any) print("there are no entries\n");
}

// One JSON array with an entry in each line.
void list_json(const Options& options) {
  client::Connection connection(wire::admin_service);
  ArkPages pages(connection, options.domain);
  const char* separator = "[\n";
  while (const Ref<plist::Array> page = pages.next()) {
    std::string text;
    for (const Ref<plist::Value>& item : page->items()) {
      text += separator + to_json_line(*item);
      separator = ",\n";
    }
    print(text);
  }
  print(separator[0] == '[' ? "[]\n" : "\n]\n");
}

void show_attributes(const Options& options) {
  client::Connection connection(wire::admin_service);
  const Ref<plist::Dictionary> reply =
      reply_or([&] { return client::copy_ark_value(connection, options.ark_key()); }, no_entry(options));
  const auto& attributes = entry<plist::Array>(*reply, wire::attributes_key);
  if (options.json) return print(to_json(attributes) + "\n");
  print(attributes.size() == 0 ? "none\n" : attributes_text(attributes) + "\n");
}

void check_attributes(const Options& options) {
  const auto twice = std::adjacent_find(options.attributes.begin(), options.attributes.end());
  if (twice == options.attributes.end()) return;
  throw Failure{wrong_usage, "--set: " + std::to_string(*twice) + " occurs twice"};
}

void set_attributes(const Options& options, bool has_key) {
  check_attributes(options);
  check_key_size(options.composed(), wire::ark_key_size);
  client::Connection connection(wire::admin_service);
  client::ArkKey key = options.ark_key();
  if (!has_key) key.key = std::nullopt;
  const Ref<plist::Dictionary> before =
      reply_of_change([&] { return client::set_ark_attributes(connection, key, options.attributes); });
  if (!before) throw Failure{failed, "the daemon answered nothing"};
  const std::string were = attributes_text(entry<plist::Array>(*before, wire::attributes_key));
  const bool is_there = !has_key || reply_of([&] { return client::copy_ark_value(connection, key); });
  print("set the attributes of " + plist::printable(options.composed()) + " until the daemon ends; they were " +
        (were.empty() ? "none" : were) + (is_there ? "" : "; there is no such entry yet") + "\n");
}

void add_attributes(CLI::App& ark) {
  auto options = std::make_shared<Options>();
  CLI::App* command = ark.add_subcommand("attributes", "Print the attributes of an entry, or set them");
  add_domain(*command, options->domain, "The domain of the key");
  const CLI::Option* key =
      add_key(*command, options->key, "The key; without one, with --set or --none, the domain's own");
  CLI::Option* json = command->add_flag("--json", options->json, "Print JSON");
  const CLI::Option* given =
      command->add_option("--set", options->attributes, "The numbers that it has from now on")
          ->type_name("N,N...")
          ->delimiter(',')
          ->allow_extra_args(false)
          ->check(CLI::Range(0, 8))
          ->excludes(json);
  command->add_flag("--none", options->none, "It has none from now on")->excludes("--set", "--json");
  command->callback([=] {
    std::sort(options->attributes.begin(), options->attributes.end());
    const bool has_key = key->count() > 0, changes = given->count() > 0 || options->none;
    if (!has_key && !changes) throw Failure{wrong_usage, "KEY is required"};
    if (!has_key && !options->domain) {
      throw Failure{wrong_usage, "KEY or --domain is required; --domain '' means all keys without a domain"};
    }
    if (changes) return set_attributes(*options, has_key);
    show_attributes(*options);
  });
}

CLI::App* add_command(CLI::App& ark, const char* name, const char* help, const std::shared_ptr<Options>& options) {
  CLI::App* command = ark.add_subcommand(name, help);
  add_domain(*command, options->domain, "The domain of the key");
  add_key(*command, options->key, "The key")->required();
  return command;
}

void add_list(CLI::App& ark) {
  auto options = std::make_shared<Options>();
  CLI::App* command = ark.add_subcommand("list", "Print the entries of a domain, or all by their composed keys");
  add_domain(*command, options->domain, "Only this domain, by the keys that entries have in it");
  add_json(*command, options->json);
  command->callback([options] { options->json ? list_json(*options) : list(*options); });
}

void add_get_set_remove(CLI::App& ark) {
  auto options = std::make_shared<Options>();
  CLI::App* getting = add_command(ark, "get", "Print a value", options);
  add_format(*getting, options->format);
  getting->callback([options] { get(*options); });
  CLI::App* setting = add_command(ark, "set", "Set a value", options);
  must_be_utf8(setting->add_option("VALUE", options->value, "A string, unless --json"))->required();
  setting->add_flag("--json", options->json, "VALUE is JSON, as get --json prints it");
  setting->callback([options] { set(*options); });
  add_command(ark, "remove", "Remove an entry", options)->callback([options] { remove(*options); });
}

}  // namespace

void add_ark_commands(CLI::App& app) {
  CLI::App* ark = app.add_subcommand("ark", "Look at the data ark, the persistent store, and change it");
  ark->require_subcommand(1);
  add_get_set_remove(*ark);
  add_list(*ark);
  add_attributes(*ark);
  add_ark_watch_command(*ark);
  add_ark_backup_commands(*ark);
}

}  // namespace corvane::tools
