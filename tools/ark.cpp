#include "tools/ark.h"

#include <CLI/CLI.hpp>

#include <utility>

#include "tools/command.h"
#include "wire/methods.h"

namespace corvane::tools {

using plist::Ref;

void add_domain(CLI::App& command, Domain& domain, const char* help) {
  must_be_utf8(command.add_option("--domain", domain, help)->type_name("DOMAIN"));
}

CLI::Option* add_key(CLI::App& command, std::string& key, const char* help) {
  return must_be_utf8(command.add_option("KEY", key, help));
}

void check_key_size(const std::string& composed, size_t limit) {
  if (composed.size() <= limit) return;
  throw Failure{wrong_usage, "domain, - and KEY have " + std::to_string(composed.size()) +
                                 " bytes together, and may have " + std::to_string(limit)};
}

std::string composed_key(const Domain& domain, std::string_view key) {
  return domain.value_or("").append("-").append(key);
}

ArkPages::ArkPages(client::Connection& admin_connection, Domain domain)
    : connection_(admin_connection), domain_(std::move(domain)) {}

Ref<plist::Array> ArkPages::next() {
  if (is_last_) return nullptr;
  const Ref<plist::Dictionary> page =
      reply_or([&] { return client::copy_ark_entries(connection_, domain_, after_); },
               "the daemon answered no page of the ark");
  const int64_t changes = entry<plist::Number>(*page, wire::changes_key).int64();
  changed_ |= changes_.value_or(changes) != changes;
  changes_ = changes;
  const auto* next = plist::cast<plist::String>(page->get(wire::next_key));
  is_last_ = next == nullptr;
  if (next != nullptr) after_ = next->view();
  return const_cast<plist::Array*>(&entry<plist::Array>(*page, wire::entries_key));
}

}  // namespace corvane::tools
