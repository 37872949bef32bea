#include <CLI/CLI.hpp>

#include <algorithm>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "client/methods.h"
#include "plist/printable.h"
#include "plist/value_size.h"
#include "plist/writer.h"
#include "tools/ark.h"
#include "tools/command.h"
#include "tools/commands.h"
#include "tools/plist_file.h"
#include "wire/limits.h"
#include "wire/methods.h"

// A dump is a dictionary whose "Entries" are what restoreArkEntries: takes: composed keys with values and
// attributes. A restore looks at the whole file before it sends the first request, because what the requests
// before a failed one have set stays set.

namespace corvane::tools {

using plist::cast;
using plist::Ref;

namespace {

constexpr int attempts = 5;
constexpr size_t bytes_in_request = 16 << 20;
constexpr size_t bytes_in_entry = wire::admin_request_limit - (64 << 10);  // the request around it takes a little
// Texts below name them.
static_assert(wire::ark_key_size == 1024 && wire::ark_change_limit == 64 << 20 && wire::ark_value_depth == 117);
constexpr int64_t last_attribute = 8;

struct Options {
  Domain domain;
  std::string file;
};

using Entries = std::vector<Ref<plist::Dictionary>>;

std::string_view key_of(const plist::Dictionary& ark_entry) {
  return entry<plist::String>(ark_entry, wire::key_key).view();
}

// Calls `visit` with each entry of the domain, or of the whole ark, under its composed key. Returns whether all
// pages were of one moment.
bool for_each_entry(client::Connection& connection, const Domain& domain,
                    const std::function<void(const plist::Dictionary&, const std::string&)>& visit) {
  ArkPages pages(connection, domain);
  while (const Ref<plist::Array> page = pages.next()) {
    for (const Ref<plist::Value>& item : page->items()) {
      const auto* found = cast<plist::Dictionary>(item.get());
      if (found == nullptr) throw Failure{failed, "the daemon answered something else than an entry"};
      visit(*found, domain ? composed_key(domain, key_of(*found)) : std::string(key_of(*found)));
    }
  }
  return pages.are_of_one_moment();
}

// Tries again where the ark has changed between two pages.
Ref<plist::MutableArray> entries_of_one_moment(client::Connection& connection, const Domain& domain) {
  for (int attempt = 0; attempt < attempts; ++attempt) {
    Ref<plist::MutableArray> entries = plist::MutableArray::create();
    const bool are_whole =
        for_each_entry(connection, domain, [&](const plist::Dictionary& found, const std::string& composed) {
          Ref<plist::MutableDictionary> copy = plist::MutableDictionary::copy(found);
          copy->set(wire::key_key, plist::String::create(composed));
          entries->append(std::move(copy));
        });
    if (are_whole) return entries;
  }
  throw Failure{failed, "the ark changed " + std::to_string(attempts) + " times while it was read"};
}

void dump(const Options& options) {
  client::Connection connection(wire::admin_service);
  const Ref<plist::MutableArray> entries = entries_of_one_moment(connection, options.domain);
  const Ref<plist::MutableDictionary> file = plist::MutableDictionary::create();
  file->set(wire::entries_key, entries);
  const std::string bytes = encode_plist(*file, plist::Encoding::binary);
  if (options.file == "-") return print_binary(bytes);
  write_output(options.file, bytes, 0600);
  print("wrote " + plist::printable(options.file) + "; entries: " + std::to_string(entries->size()) + "\n");
}

// ---- restore ------------------------------------------------------------------------------------------

bool are_attributes(const plist::Value* value) {
  const auto* attributes = cast<plist::Array>(value);
  std::set<int64_t> seen;
  return attributes != nullptr &&
         std::all_of(attributes->items().begin(), attributes->items().end(), [&](auto& item) {
           const auto* number = cast<plist::Number>(item.get());
           return number != nullptr && number->is_integer() && number->int64() >= 0 &&
                  number->int64() <= last_attribute && seen.insert(number->int64()).second;
         });
}

// As the daemon counts what a request sets.
size_t change_size(const plist::Value& value) { return plist::estimate_size(value, wire::ark_change_limit); }

size_t encoded_size(const plist::Dictionary& ark_entry) {
  plist::ByteChain chain;
  const Ref<plist::String> fault = plist::encode_binary(ark_entry, chain);
  if (fault) throw Failure{wrong_usage, std::string(fault->view())};
  return chain.size();
}

// Null, or what the daemon would refuse.
const char* fault_of(const plist::Value& item) {
  const auto* dictionary = cast<plist::Dictionary>(&item);
  if (dictionary == nullptr) return "not a dictionary";
  const auto* key = cast<plist::String>(dictionary->get(wire::key_key));
  if (key == nullptr || key->view().find('-') == std::string_view::npos) return "no composed key";
  if (key->view().size() > wire::ark_key_size) return "a key of more than 1,024 bytes";
  if (key->view().find('\0') != std::string_view::npos) return "a key with U+0000";
  const plist::Value* value = dictionary->get(wire::value_key);
  if (value == nullptr) return "no value";
  if (change_size(*value) > wire::ark_change_limit) return "a value of more than 64 MiB";
  if (plist::nesting_depth(*value) > wire::ark_value_depth) return "a value nested more than 117 deep";
  const plist::Value* attributes = dictionary->get(wire::attributes_key);
  if (attributes != nullptr && !are_attributes(attributes)) return "attributes are different numbers from 0 to 8";
  if (encoded_size(*dictionary) > bytes_in_entry) return "more than 64 MiB when it is sent";
  return nullptr;
}

// Those of the domain, or all. Throws FileFault where any entry of the file is none.
Entries read_entries(const Options& options) {
  const Ref<plist::Value> content = read_plist_input(options.file);
  const auto* file = cast<plist::Dictionary>(content.get());
  const auto* items = file == nullptr ? nullptr : cast<plist::Array>(file->get(wire::entries_key));
  if (items == nullptr) throw FileFault(options.file, "not a dump of the ark");
  Entries entries;
  for (size_t i = 0; i < items->size(); ++i) {
    const char* const fault = fault_of(*items->at(i));
    if (fault != nullptr) throw FileFault(options.file, "entry " + std::to_string(i) + ": " + fault);
    auto* found = cast<plist::Dictionary>(items->at(i));
    if (!options.domain || key_of(*found).starts_with(composed_key(options.domain, ""))) entries.push_back(found);
  }
  return entries;
}

// As many of the entries from `first` on as go into one request.
Ref<plist::Array> next_request(const Entries& entries, size_t first) {
  Ref<plist::MutableArray> request = plist::MutableArray::create();
  size_t bytes = 0, changed = 0;
  for (size_t i = first; i < entries.size() && request->size() < wire::ark_restore_entries; ++i) {
    bytes += encoded_size(*entries[i]);
    changed += change_size(*entries[i]->get(wire::value_key));
    const bool is_full = bytes > bytes_in_request || changed > wire::ark_change_limit;
    if (is_full && request->size() > 0) break;
    request->append(entries[i]);
  }
  return plist::MutableArray::freeze(std::move(request));
}

void send(client::Connection& connection, const Entries& entries) {
  for (size_t sent = 0; sent < entries.size();) {
    const Ref<plist::Array> request = next_request(entries, sent);
    try {
      reply_of_change([&] { return client::restore_ark_entries(connection, request); });
    } catch (Failure& failure) {
      if (sent > 0) failure.text += "; entries set before: " + std::to_string(sent);
      throw;
    }
    sent += request->size();
  }
}

size_t count_others(client::Connection& connection, const Domain& domain, const std::set<std::string_view>& keys) {
  size_t count = 0;
  for_each_entry(connection, domain, [&](const plist::Dictionary&, const std::string& composed) {
    if (!keys.contains(composed)) ++count;
  });
  return count;
}

void restore(const Options& options) {
  const Entries entries = read_entries(options);
  std::set<std::string_view> keys;
  for (const Ref<plist::Dictionary>& found : entries) keys.insert(key_of(*found));
  client::Connection connection(wire::admin_service);
  // First, so that a failure here leaves the ark as it was.
  const size_t others = count_others(connection, options.domain, keys);
  send(connection, entries);
  print("set from " + plist::printable(options.file) + ": " + std::to_string(keys.size()) +
        "; left alone, because the file does not have them: " + std::to_string(others) + "\n");
}

}  // namespace

void add_ark_backup_commands(CLI::App& ark) {
  auto options = std::make_shared<Options>();
  const auto add = [&](const char* name, const char* help, const char* file_help) {
    CLI::App* command = ark.add_subcommand(name, help);
    add_domain(*command, options->domain, "Only the entries of this domain");
    add_text(*command, "FILE", options->file, file_help)->required();
    return command;
  };
  add("dump", "Write the entries with their attributes to a file", "The file; - for standard output")
      ->callback([options] { dump(*options); });
  add("restore", "Set the entries of a dump; others are left alone",
      "A file that dump has written; - for standard input")
      ->callback([options] { restore(*options); });
}

}  // namespace corvane::tools
