// A page is a walk along the ordered keys, which stay in order while entries come and go. So the next page finds
// its place by the last key of the one before, also where that entry was removed in between.

#include <string>
#include <string_view>

#include "plist/value_size.h"
#include "state/data_ark.h"
#include "state/data_ark_state.h"

namespace corvane {

using plist::String;

namespace {

// About what an entry takes beside its key and its value.
constexpr size_t entry_overhead = 32;

size_t size_of(const ArkEntry& entry, size_t limit) {
  return entry_overhead + entry.key->view().size() + plist::estimate_size(*entry.value, limit);
}

ArkEntry entry_of(data_ark& ark, const KeyOrder::value_type& key, size_t prefix_size) {
  return {String::create(key.first.substr(prefix_size)), ark.values->entries()[key.second].value,
          ark.attributes_of(key.first)};
}

}  // namespace

ArkPage data_ark_copy_page(data_ark* ark, const String* domain, const String* after, size_t most_entries,
                           size_t most_bytes) {
  assert_ark_owner();
  ArkPage page;
  if (!ark->values) return page;
  const std::string prefix = domain == nullptr ? std::string() : std::string(domain->view()) + '-';
  const KeyOrder& keys = ark->keys_in_order();
  auto next = after == nullptr ? keys.lower_bound(prefix) : keys.upper_bound(prefix + std::string(after->view()));
  size_t size = 0;
  for (; next != keys.end() && next->first.starts_with(prefix); ++next) {
    ArkEntry entry = entry_of(*ark, *next, prefix.size());
    size += size_of(entry, most_bytes);
    const bool is_full = page.entries.size() == most_entries || size > most_bytes;
    if (is_full && !page.entries.empty()) {
      page.is_last = false;
      break;
    }
    page.entries.push_back(std::move(entry));
  }
  return page;
}

}  // namespace corvane
