#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "plist/value.h"

/// The data ark: the daemon's one persistent key/value store. It holds property-list values under string keys,
/// which are grouped into optional domains. Keys carry attributes and are watched for changes. The whole ark is
/// one property-list file, /private/var/mobile/Library/cvd/data_ark.plist.
///
/// Every operation works on the composed key of a domain and a key, either of which may be null: "domain-key",
/// "domain-" (the domain's own key), "-key", "-". The separator is not escaped: domain a with key b-c is
/// domain a-b with key c.
///
/// The ark has no lock. Start-up uses it until the request queue has its thread; from then on only the request
/// queue does. Builds with assertions check that.
///
/// Set, get, exists and remove take constant time on average, however many entries there are. The first copy of a
/// domain or of a page sorts all keys; from then on adding or removing an entry also updates that order, in
/// logarithmic time.
///
/// Where memory is out, a function throws std::bad_alloc unless its description says something else.
namespace corvane {

struct data_ark;

/// What a watch waits for; combinable.
enum ArkWatch : unsigned {
  ARK_WATCH_SET = 1,     ///< every set of the key, also of an equal value
  ARK_WATCH_REMOVE = 2,  ///< the key's removal
  ARK_WATCH_CHANGE = 4,  ///< a set of a value that differs from the previous one, or of the first one
};

/// Keys carry attributes, numbered from 0 to 8. The ark acts on these; of the others it only remembers which keys
/// carry them.
enum ArkAttribute : unsigned {
  ARK_NOT_STORED = 1,  ///< the entry is not in the file; neither its change nor its removal is counted as unsaved
  ARK_CHANGE_UNCOUNTED = 5,  ///< a change of the entry is not counted as unsaved; its removal is
  ARK_ALSO_NOT_STORED = 7,   ///< the same as ARK_NOT_STORED
};
inline constexpr unsigned ark_attribute_count = 9;

struct DataArkDeleter {
  void operator()(data_ark* ark) const;
};
using DataArk = std::unique_ptr<data_ark, DataArkDeleter>;

/// The ark as its file has it, nested containers mutable. Where the file cannot be read, one line is logged and
/// the ark is empty; a regular file is renamed to data_ark.plist.unreadable or, where that exists, to the first
/// free one of data_ark.plist.unreadable.1, .2 and so on. Where a link leads the state directory elsewhere, the
/// ark is empty too, and nothing behind the link is touched. Null where memory is out.
DataArk data_ark_load();

/// Replaces the file by what the ark holds now, without the entries with attribute 1 or 7. Deletes the file where
/// no entry is left to store, or where there is no memory to gather them, which is logged; but never a file that
/// the load could neither read nor rename. A failure leaves the file as it was and is logged, unless it was to be
/// deleted. The file is not
/// flushed to stable storage. In every case the count of unsaved changes is 0 afterwards. Never throws.
void data_ark_store(data_ark* ark);

/// Stores the value, also an equal one, and retains it. A new entry inherits the attributes of its domain's own
/// key. Then the watches are notified, each time those of the key first and those of the domain's own key second:
/// if the value has changed, the notifications for a change are posted and its callbacks scheduled; and always the
/// notifications for a set are posted and its callbacks scheduled.
///
/// 0, or -1 for a null value, which is logged, and where memory is out. Then the value is either not set, or set
/// and counted as unsaved, and perhaps not all watches were notified.
int data_ark_set(data_ark* ark, const plist::String* domain, const plist::String* key, plist::Value* value);

/// Set a number of 32-bit or 64-bit integer kind. They end the process where the number cannot be created.
void data_ark_set_int(data_ark* ark, const plist::String* domain, const plist::String* key, int32_t value);
void data_ark_set_int64(data_ark* ark, const plist::String* domain, const plist::String* key, int64_t value);

/// With a key: the value, or null. With a null key: a new mutable dictionary of the domain's entries (with a null
/// domain too: of the entries that have no domain) under the rest of their composed keys. It shares the values,
/// and may be empty. Null where nothing was ever loaded or set.
plist::Ref<plist::Value> data_ark_copy(data_ark* ark, const plist::String* domain, const plist::String* key);

/// The value that `data_ark_copy` answers, as an integer: of a Boolean 1 or 0; of an integer its lowest 32 or 64
/// bits; of a real its whole part, limited to the range; of a string its leading decimal integer, limited to 32
/// bits. Otherwise, and for a null key, 0.
int32_t data_ark_get_int(data_ark* ark, const plist::String* domain, const plist::String* key);
int64_t data_ark_get_int64(data_ark* ark, const plist::String* domain, const plist::String* key);

/// Removes the entry and its attributes, then notifies the watches for the key's removal, but not those of the
/// domain's own key. 0, also when there is no such entry; -1 where nothing was ever loaded or set.
int data_ark_remove(data_ark* ark, const plist::String* domain, const plist::String* key);

/// Whether there is such an entry.
bool data_ark_exists(data_ark* ark, const plist::String* domain, const plist::String* key);

/// Set and clear answer 0, or -1 for an index above 8 and where memory is out. No key has an attribute above 8.
int data_ark_set_attribute(data_ark* ark, const plist::String* domain, const plist::String* key, unsigned index);
bool data_ark_has_attribute(data_ark* ark, const plist::String* domain, const plist::String* key, unsigned index);
int data_ark_clear_attribute(data_ark* ark, const plist::String* domain, const plist::String* key, unsigned index);

/// The attributes of a key, one bit for each: that of index 0 is the lowest.
uint16_t data_ark_attributes(data_ark* ark, const plist::String* domain, const plist::String* key);
/// Gives the key just these attributes. 0, or -1 for one above 8 and where memory is out; then nothing has
/// changed.
int data_ark_replace_attributes(data_ark* ark, const plist::String* domain, const plist::String* key,
                                uint16_t attributes);

struct ArkEntry {
  plist::Ref<plist::String> key;
  plist::Ref<plist::Value> value;  ///< shared with the ark
  uint16_t attributes;             ///< as `data_ark_attributes` answers them
};

struct ArkPage {
  std::vector<ArkEntry> entries;
  bool is_last = true;  ///< no entry comes behind these
};

/// The entries of a domain under the rest of their composed keys, in the order of the keys' bytes: those behind
/// the key `after`, or from the first one on where that is null. `after` need not be there any more. Unlike
/// elsewhere a null domain stands for the whole ark, and the keys are composed then. The page ends before it has
/// more than `most_entries` or, by `estimate_size`, more than `most_bytes`; one entry of any size is always taken.
///
/// Takes the time to find a key in the order, and then time for its own entries only, however many others there
/// are.
ArkPage data_ark_copy_page(data_ark* ark, const plist::String* domain, const plist::String* after,
                           size_t most_entries, size_t most_bytes);

/// How many changes of values and attributes there were since the load, removals included. As long as it stays the
/// same, so does what pages answer.
uint64_t data_ark_change_count(data_ark* ark);

/// How many changes were counted as unsaved since the load or the last store.
uint32_t data_ark_dirty_count(data_ark* ark);

struct ArkStatus {
  size_t entries;
  uint32_t unsaved;  ///< as `data_ark_dirty_count` answers
  uint64_t stores;   ///< since the load, those that failed included
  uint64_t failed_stores;
  bool was_unreadable;  ///< at the load there was a file, but none that could be read
};
ArkStatus data_ark_status(data_ark* ark);

/// Registers a system-wide notification for each event in `flags`, replacing the key's earlier one. The flags are
/// handled in the order CHANGE, SET, REMOVE. 0, or -1 at the first that cannot be registered for lack of
/// memory; those before it stay registered. -1 for a null name, with nothing registered.
int data_ark_watch(data_ark* ark, const plist::String* domain, const plist::String* key,
                   plist::Ref<plist::String> notification_name, unsigned flags);

/// Registers a callback as `data_ark_watch` registers a notification. It runs on the main queue; a callback that
/// uses the ark must submit that to the request queue. It is copied, and the copy lives as long as the ark, also
/// when another one replaces it. 0, with nothing registered, for an empty callback and where the copy cannot be
/// made.
int data_ark_watch_block(data_ark* ark, const plist::String* domain, const plist::String* key,
                         const std::function<void()>& callback, unsigned flags);

}  // namespace corvane
