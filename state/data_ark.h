#pragma once

#include <cstdint>
#include <functional>
#include <memory>

#include "plist/value.h"

/// The data ark: the daemon's one persistent key/value store. Values stand under string keys that are grouped
/// into optional domains; keys carry attributes and are watched for changes; the whole is one property-list
/// file, /private/var/mobile/Library/cvd/data_ark.plist.
///
/// Every operation works on the composed key of a domain and a key, either of which may be null: "domain-key",
/// "domain-" (the domain's own key), "-key", "-". The separator is not escaped: domain a with key b-c is
/// domain a-b with key c.
///
/// The ark has no lock. Start-up uses it until the request queue has its thread, and from then on only the
/// request queue does; builds with assertions hold callers to that. Set, get, exists and remove cost the same
/// in every ark. Where no result says otherwise, running out of memory is std::bad_alloc.
namespace corvane {

struct data_ark;

/// What a watch waits for; combinable.
enum ArkWatch : unsigned {
  ARK_WATCH_SET = 1,     ///< every set of the key, changed or not
  ARK_WATCH_REMOVE = 2,  ///< the key's removal
  ARK_WATCH_CHANGE = 4,  ///< a set of another value than before, or where there was none
};

/// Keys carry attributes, numbered from 0 to 8. These mean something to the ark; of the others it only remembers
/// who has them.
enum ArkAttribute : unsigned {
  ARK_NOT_STORED = 1,    ///< the entry is not in the file; neither its change nor its removal counts as unsaved
  ARK_CHANGE_CLEAN = 5,  ///< a change of the entry does not count as unsaved; its removal does
  ARK_NOT_STORED_2 = 7,  ///< as ARK_NOT_STORED
};
inline constexpr unsigned ark_attribute_count = 9;

struct DataArkDeleter {
  void operator()(data_ark* ark) const;
};
using DataArk = std::unique_ptr<data_ark, DataArkDeleter>;

/// The ark as its file has it, nested containers mutable. Where nothing usable could be read, one line is
/// logged, the ark is empty, and a regular file is kept aside as data_ark.plist.unreadable, or with the
/// first free number behind that, .1, .2 and so on. Null where memory is out.
DataArk data_ark_load();

/// Replaces the file by what the ark holds now, but for entries with attribute 1 or 7; deletes it where that
/// is nothing. A failure is logged, and the file stays as it was; it is not flushed to stable storage. Nothing
/// counts as unsaved afterwards, whether or not that worked.
void data_ark_store(data_ark* ark);

/// Stores the value, also an equal one, and retains it. An entry that is new inherits the attributes of its
/// domain's own key. Then, for the key and after it for the domain's own key: posts what watches for a
/// change, schedules the callbacks for one, posts and schedules what watches for a set. 0, or -1 for a null
/// value, which is logged, and where memory runs out: the value is set and counted then, or it is not, and some
/// of the rest has not been done.
int data_ark_set(data_ark* ark, const plist::String* domain, const plist::String* key, plist::Value* value);

/// Set a number of 32-bit or 64-bit integer kind. They end the process where it cannot be made.
void data_ark_set_int(data_ark* ark, const plist::String* domain, const plist::String* key, int32_t value);
void data_ark_set_int64(data_ark* ark, const plist::String* domain, const plist::String* key, int64_t value);

/// With a key: the value, or null. Without: a new mutable dictionary of the domain's entries, or of those that
/// have no domain, under the rest of their composed keys; it shares the values and may be empty. Null where
/// nothing was ever loaded or set.
plist::Ref<plist::Value> data_ark_copy(data_ark* ark, const plist::String* domain, const plist::String* key);

/// The value as an integer: of a Boolean 1 or 0, of an integer its lowest 32 or 64 bits, of a real its whole
/// part within the range, of a string its leading decimal integer within 32 bits; otherwise 0.
int32_t data_ark_get_int(data_ark* ark, const plist::String* domain, const plist::String* key);
int64_t data_ark_get_int64(data_ark* ark, const plist::String* domain, const plist::String* key);

/// Removes the entry and its attributes, then posts and schedules what watches for the key's removal; the
/// domain's own key is not consulted. 0, also when there is no such entry; -1 where nothing was ever loaded or
/// set.
int data_ark_remove(data_ark* ark, const plist::String* domain, const plist::String* key);

bool data_ark_exists(data_ark* ark, const plist::String* domain, const plist::String* key);

/// 0, or -1 for an index above 8 (and where memory is out).
int data_ark_set_attribute(data_ark* ark, const plist::String* domain, const plist::String* key, unsigned index);
bool data_ark_has_attribute(data_ark* ark, const plist::String* domain, const plist::String* key, unsigned index);
int data_ark_clear_attribute(data_ark* ark, const plist::String* domain, const plist::String* key, unsigned index);

/// How many changes since the load or the last store are not in the file.
uint32_t data_ark_dirty_count(data_ark* ark);

/// Registers a system-wide notification for what `flags` say, in place of an earlier one of the key. The flags
/// are taken in the order CHANGE, SET, REMOVE; -1 at the first that cannot be registered, 0 otherwise.
int data_ark_watch(data_ark* ark, const plist::String* domain, const plist::String* key,
                   plist::Ref<plist::String> notification_name, unsigned flags);

/// Registers a callback, which runs on the main queue; one that uses the ark must hand that to the request
/// queue. It is copied, and the copy lives as long as the ark. 0 with nothing registered where it cannot be
/// copied; otherwise as `data_ark_watch`.
int data_ark_watch_block(data_ark* ark, const plist::String* domain, const plist::String* key,
                         const std::function<void()>& callback, unsigned flags);

}  // namespace corvane
