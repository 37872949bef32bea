// Replies are made before the ark is changed: where memory runs out for one, nothing has happened yet.

#include "daemon/ark_methods.h"

#include <map>
#include <optional>
#include <string_view>
#include <utility>

#include "daemon/answers.h"
#include "plist/value_size.h"
#include "state/detached_value.h"
#include "state/values.h"
#include "wire/limits.h"
#include "wire/messages.h"

namespace corvane {

using plist::Ref;
using plist::String;

namespace {

constexpr char not_stored[] =
    "it is done, but the data ark could not be stored: look into the log, and at the state directory";
constexpr char too_many_watched[] = "64 keys are watched already: the watches end with the daemon";
static_assert(wire::watched_keys_limit == 64);

constexpr std::string_view notification_prefix = "com.norvane.corvaned.ark.";

Ref<plist::Array> array_of(uint16_t attributes) {
  const Ref<plist::MutableArray> indexes = plist::MutableArray::create();
  for (int32_t index = 0; index < static_cast<int32_t>(ark_attribute_count); ++index) {
    if ((attributes >> index & 1) != 0) indexes->append(plist::Number::create_int32(index));
  }
  return indexes;
}

std::optional<uint16_t> attribute_bit_of(plist::Value* index) {
  const plist::Number* number = as_number(index);
  if (number == nullptr || !number->is_integer() || number->uint64() >= ark_attribute_count) return std::nullopt;
  return static_cast<uint16_t>(1u << number->uint64());
}

// Nothing where they are not different indexes.
std::optional<uint16_t> attributes_of(const plist::Array& indexes) {
  uint16_t attributes = 0;
  for (const Ref<plist::Value>& index : indexes.items()) {
    const std::optional<uint16_t> bit = attribute_bit_of(index.get());
    if (!bit || (attributes & *bit) != 0) return std::nullopt;
    attributes |= *bit;
  }
  return attributes;
}

bool is_stored(uint16_t attributes) {
  return (attributes & (1u << ARK_NOT_STORED | 1u << ARK_ALSO_NOT_STORED)) == 0;
}

std::string compose(const ArkKey& key) {
  const std::string domain(key.domain == nullptr ? "" : key.domain->view());
  return domain + '-' + std::string(key.key == nullptr ? "" : key.key->view());
}

// C clients of a page take U+0000 for the end of its last key, and would ask for the same page again and again.
bool may_be_set(std::string_view composed) {
  return composed.size() <= wire::ark_key_size && composed.find('\0') == std::string_view::npos;
}

bool may_be_set(const ArkKey& key) { return may_be_set(compose(key)); }

Ref<plist::Dictionary> make_entry(Ref<plist::Value> value, uint16_t attributes) {
  const Ref<plist::MutableDictionary> entry = plist::MutableDictionary::create();
  entry->set(wire::value_key, std::move(value));
  entry->set(wire::attributes_key, array_of(attributes));
  return entry;
}

// ---- entries to restore -------------------------------------------------------------------------------

struct RestoredEntry {
  plist::Value* value;
  uint16_t attributes;
};
using RestoredEntries = std::map<std::string_view, RestoredEntry>;  // by composed key

bool read_restored_attributes(plist::Value* value, uint16_t& attributes) {
  attributes = 0;
  if (value == nullptr) return true;
  const plist::Array* indexes = as_array(value);
  const std::optional<uint16_t> read = indexes == nullptr ? std::nullopt : attributes_of(*indexes);
  attributes = read.value_or(0);
  return read.has_value();
}

// Adds the size of the entry to `size`. False where it is no entry.
bool read_restored_entry(plist::Value* value, RestoredEntries& entries, size_t& size) {
  const plist::Dictionary* fields = as_dictionary(value);
  if (fields == nullptr) return false;
  const String* key = as_string(fields->get(wire::key_key));
  RestoredEntry entry{fields->get(wire::value_key), 0};
  if (key == nullptr || key->view().find('-') == std::string_view::npos || entry.value == nullptr) return false;
  if (!read_restored_attributes(fields->get(wire::attributes_key), entry.attributes)) return false;
  if (!may_be_set(key->view())) return false;
  size += plist::estimate_size(*entry.value, wire::ark_change_limit);
  entries.insert_or_assign(key->view(), entry);
  return size <= wire::ark_change_limit;
}

// Nothing where one of them is wrong, or all together are too many or too large.
std::optional<RestoredEntries> read_restored_entries(const plist::Array& values) {
  if (values.size() > wire::ark_restore_entries) return std::nullopt;
  RestoredEntries entries;
  size_t size = 0;
  for (const Ref<plist::Value>& value : values.items()) {
    if (!read_restored_entry(value.get(), entries, size)) return std::nullopt;
  }
  return entries;
}

/// The two parts of a composed key. The first "-" ends the domain.
struct SplitKey {
  explicit SplitKey(std::string_view composed)
      : domain(String::create(composed.substr(0, composed.find('-')))),
        key(String::create(composed.substr(composed.find('-') + 1))) {}

  const Ref<String> domain, key;
};

bool set_values(data_ark* ark, const RestoredEntries& entries) {
  for (const auto& [composed, entry] : entries) {
    const SplitKey split(composed);
    const Ref<plist::Value> kept = detached_value(*entry.value);
    if (data_ark_set(ark, split.domain.get(), split.key.get(), kept.get()) != 0) return false;
  }
  return true;
}

bool set_attributes(data_ark* ark, const RestoredEntries& entries) {
  for (const auto& [composed, entry] : entries) {
    const SplitKey split(composed);
    if (data_ark_replace_attributes(ark, split.domain.get(), split.key.get(), entry.attributes) != 0) return false;
  }
  return true;
}

}  // namespace

bool ArkMethods::has_ark(const CompletionBlock& completion) const {
  if (ark_ == nullptr) answer_failure(completion);
  return ark_ != nullptr;
}

Ref<plist::Dictionary> ArkMethods::copy_entry(const ArkKey& key) const {
  Ref<plist::Value> value = data_ark_copy(ark_, key.domain, key.key);
  if (!value) return nullptr;
  return make_entry(std::move(value), data_ark_attributes(ark_, key.domain, key.key));
}

void ArkMethods::store_and_answer(plist::Dictionary* reply, const CompletionBlock& completion) {
  if (store_is_due_ || data_ark_dirty_count(ark_) != 0) {
    const uint64_t failed_before = data_ark_status(ark_).failed_stores;
    data_ark_store(ark_);
    store_is_due_ = data_ark_status(ark_).failed_stores != failed_before;
  }
  if (store_is_due_) {
    answer_failure_because(completion, not_stored);
  } else if (reply != nullptr) {
    answer(completion, *reply);
  } else {
    answer_nothing(completion);
  }
}

void ArkMethods::copyArkValueForDomain_key_withCompletionBlock(const ArkKey& key,
                                                               const CompletionBlock& completion) {
  if (!has_ark(completion)) return;
  const Ref<plist::Dictionary> entry = copy_entry(key);
  if (!entry) return answer_nothing(completion);
  answer(completion, *entry);
}

void ArkMethods::setArkValue_forDomain_key_withCompletionBlock(plist::Value& value, const ArkKey& key,
                                                               const CompletionBlock& completion) {
  if (!has_ark(completion)) return;
  const bool may_be_value = plist::estimate_size(value, wire::ark_change_limit) <= wire::ark_change_limit &&
                            plist::nesting_depth(value) <= wire::ark_value_depth;
  if (!may_be_set(key) || !may_be_value) return answer_bad_argument(completion);
  const Ref<plist::Dictionary> before = copy_entry(key);
  const Ref<plist::Value> kept = detached_value(value);
  const uint64_t changes_before = data_ark_change_count(ark_);
  const bool was_due = std::exchange(store_is_due_, true);
  if (data_ark_set(ark_, key.domain, key.key, kept.get()) != 0) return answer_failure(completion);
  // A change under attribute 5 is not counted as unsaved, but the file has the entry.
  const bool changes_file =
      data_ark_change_count(ark_) != changes_before && is_stored(data_ark_attributes(ark_, key.domain, key.key));
  store_is_due_ = was_due || changes_file;
  store_and_answer(before.get(), completion);
}

void ArkMethods::removeArkValueForDomain_key_withCompletionBlock(const ArkKey& key,
                                                                 const CompletionBlock& completion) {
  if (!has_ark(completion)) return;
  const Ref<plist::Dictionary> before = copy_entry(key);
  if (before) {
    // Also under an attribute that keeps it out of the file: it may have got that after the last store.
    store_is_due_ = true;
    data_ark_remove(ark_, key.domain, key.key);
  }
  store_and_answer(before.get(), completion);
}

void ArkMethods::setArkAttributes_forDomain_key_withCompletionBlock(const plist::Array& attributes,
                                                                    const ArkKey& key,
                                                                    const CompletionBlock& completion) {
  if (!has_ark(completion)) return;
  const std::optional<uint16_t> wanted = attributes_of(attributes);
  if (!wanted || !may_be_set(key)) return answer_bad_argument(completion);
  const uint16_t before = data_ark_attributes(ark_, key.domain, key.key);
  const Ref<plist::MutableDictionary> reply = plist::MutableDictionary::create();
  reply->set(wire::attributes_key, array_of(before));
  const bool was_due = std::exchange(store_is_due_, true);
  if (data_ark_replace_attributes(ark_, key.domain, key.key, *wanted) != 0) return answer_failure(completion);
  // The file has an entry too many now, or one too few.
  const bool moves = is_stored(before) != is_stored(*wanted) && data_ark_exists(ark_, key.domain, key.key);
  store_is_due_ = was_due || moves;
  store_and_answer(reply.get(), completion);
}

void ArkMethods::copyArkEntriesForDomain_after_withCompletionBlock(String* domain, String* after,
                                                                   const CompletionBlock& completion) {
  if (!has_ark(completion)) return;
  const ArkPage page = data_ark_copy_page(ark_, domain, after, wire::ark_page_entries, wire::ark_page_size);
  const Ref<plist::MutableArray> entries = plist::MutableArray::create();
  for (const ArkEntry& found : page.entries) {
    const Ref<plist::MutableDictionary> entry = plist::MutableDictionary::create();
    entry->set(wire::key_key, found.key);
    entry->set(wire::value_key, found.value);
    entry->set(wire::attributes_key, array_of(found.attributes));
    entries->append(entry);
  }
  const Ref<plist::MutableDictionary> reply = plist::MutableDictionary::create();
  reply->set(wire::entries_key, entries);
  if (!page.is_last) reply->set(wire::next_key, page.entries.back().key);
  reply->set(wire::changes_key, plist::Number::create_uint64(data_ark_change_count(ark_)));
  answer(completion, *reply);
}

void ArkMethods::restoreArkEntries_withCompletionBlock(const plist::Array& entries,
                                                       const CompletionBlock& completion) {
  if (!has_ark(completion)) return;
  const std::optional<RestoredEntries> restored = read_restored_entries(entries);
  if (!restored) return answer_bad_argument(completion);
  const uint64_t changes_before = data_ark_change_count(ark_);
  const bool was_due = std::exchange(store_is_due_, true);
  // The attributes come second: a new value inherits those of its domain, which are to be replaced.
  if (!set_values(ark_, *restored) || !set_attributes(ark_, *restored)) return answer_failure(completion);
  // A change may not count as unsaved under attributes that were only inherited.
  store_is_due_ = was_due || data_ark_change_count(ark_) != changes_before;
  store_and_answer(nullptr, completion);
}

void ArkMethods::watchArkValueForDomain_key_withCompletionBlock(const ArkKey& key,
                                                                const CompletionBlock& completion) {
  if (!has_ark(completion)) return;
  const std::string composed = compose(key);
  if (key.key->view().empty() || composed.size() > wire::watched_key_size) return answer_bad_argument(completion);
  const bool is_new = !watched_.contains(composed);
  if (is_new && watched_.size() == wire::watched_keys_limit) {
    return answer_failure_because(completion, too_many_watched);
  }
  const Ref<String> name = String::create(std::string(notification_prefix) + composed);
  const Ref<plist::MutableDictionary> reply = plist::MutableDictionary::create();
  reply->set(wire::notification_key, name);
  if (is_new) {
    watched_.insert(composed);
    if (data_ark_watch(ark_, key.domain, key.key, name, ARK_WATCH_CHANGE | ARK_WATCH_REMOVE) != 0) {
      watched_.erase(composed);
      return answer_failure(completion);
    }
  }
  answer(completion, *reply);
}

}  // namespace corvane
