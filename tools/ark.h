#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "client/methods.h"
#include "plist/value.h"

namespace CLI {
class App;
class Option;
}  // namespace CLI

/// What the commands below `corvanectl ark` share.
namespace corvane::tools {

/// The domain that `--domain` names, or none.
using Domain = std::optional<std::string>;

void add_domain(CLI::App& command, Domain& domain, const char* help);

/// Adds the argument KEY. Returns its option.
CLI::Option* add_key(CLI::App& command, std::string& key, const char* help);

/// Throws Failure where a composed key has more bytes than the limit.
void check_key_size(const std::string& composed, size_t limit);

/// The key under which the ark keeps an entry: domain, "-", key.
std::string composed_key(const Domain& domain, std::string_view key);

/// The entries of a domain, or the whole ark, a page at a time.
class ArkPages {
 public:
  ArkPages(client::Connection& admin_connection, Domain domain);

  /// The entries of the next page; null where there is none. Throws Failure.
  plist::Ref<plist::Array> next();
  /// Whether the ark has not changed between the pages so far.
  bool are_of_one_moment() const { return !changed_; }

 private:
  client::Connection& connection_;
  const Domain domain_;
  std::optional<std::string> after_;
  std::optional<int64_t> changes_;
  bool changed_ = false;
  bool is_last_ = false;
};

}  // namespace corvane::tools
