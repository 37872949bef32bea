// A store writes a temporary file beside the ark's file and renames it over that, so that whoever looks finds the
// old ark or the new one. A file that cannot be read is renamed out of the way at the load, because start-up
// stores at once and would delete it.
//
// The state directory may have been replaced by a link. Nothing behind one is renamed, created or deleted.

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <new>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "daemon/log/cv_log.h"
#include "platform/descriptor.h"
#include "state/data_ark.h"
#include "state/data_ark_state.h"
#include "state/plist_file.h"
#include "state/state_directory.h"

namespace corvane {

using plist::Ref;

namespace {

constexpr char ark_file[] = "data_ark.plist";
constexpr char temporary_file[] = "data_ark.plist.XXXXXX";  // the six X are part of the name
constexpr char unreadable_file[] = "data_ark.plist.unreadable";

// ---- loading ------------------------------------------------------------------------------------------

bool may_be_regular_file(int directory) {
  struct stat status;
  if (fstatat(directory, ark_file, &status, AT_SYMLINK_NOFOLLOW) != 0) return errno != ENOENT;
  return S_ISREG(status.st_mode);
}

bool rename_unreadable_file(int directory) {
  char name[sizeof unreadable_file + sizeof ".4294967295"];
  std::snprintf(name, sizeof name, "%s", unreadable_file);
  for (unsigned number = 1; renameat2(directory, ark_file, directory, name, RENAME_NOREPLACE) != 0; ++number) {
    if (errno != EEXIST) {
      cv_log("data_ark_load", 0, "Problem renaming %s: %s", state_path(ark_file).text, std::strerror(errno));
      return false;
    }
    std::snprintf(name, sizeof name, "%s.%u", unreadable_file, number);
  }
  return true;
}

void keep_unreadable_file(data_ark& ark) {
  const Descriptor directory(open_state_directory());
  ark.was_unreadable = directory.is_open() ? may_be_regular_file(directory.number()) : errno != ENOENT;
  if (!ark.was_unreadable) return;
  ark.unreadable_in_place = !directory.is_open() || !rename_unreadable_file(directory.number());
}

void load_entries(data_ark& ark) {
  const StatePath path = state_path(ark_file);
  const Ref<plist::Value> value = load_mutable_dict(path.text);
  ark.values = plist::cast<plist::MutableDictionary>(value.get());
  if (ark.values) return;
  cv_log("data_ark_load", 0, "Could not load %s", path.text);
  keep_unreadable_file(ark);
}

// ---- storing ------------------------------------------------------------------------------------------

// The values that are not stored, in the order of their entries. They are found by the attributes, which few keys
// have.
std::vector<const Ref<plist::Value>*> transient_values(const data_ark& ark) {
  std::vector<const Ref<plist::Value>*> values;
  for (const auto& [key, attributes] : ark.attributes) {
    if ((attributes & transient_attributes) == 0) continue;
    if (const Ref<plist::Value>* value = ark.values->find_value(key)) values.push_back(value);
  }
  std::ranges::sort(values);
  return values;
}

// Null where memory is out. The ark's own dictionary where all of it is stored.
Ref<plist::Dictionary> persistent_entries(const data_ark& ark) {
  try {
    if (!ark.values) return plist::MutableDictionary::create();
    const auto transient = transient_values(ark);
    if (transient.empty()) return ark.values;
    auto next = transient.begin();
    return plist::MutableDictionary::select(*ark.values, [&](const plist::Dictionary::Entry& entry) {
      if (next == transient.end() || *next != &entry.value) return true;
      ++next;
      return false;
    });
  } catch (const std::bad_alloc&) {
    cv_log("data_ark_store", 0, "Nothing mutable changed!");
    return nullptr;
  }
}

bool replace_file(const plist::Dictionary& entries, bool directory_is_linked) {
  const StatePath path = state_path(ark_file), temporary = state_path(temporary_file);
  // store_dict would create the temporary file behind the link before it sees that it is in the wrong place.
  if (directory_is_linked || store_dict(temporary.text, entries) != 0) {
    cv_log("data_ark_store", 0, "Could not store %s", temporary.text);
    return false;
  }
  if (rename(temporary.text, path.text) == 0) return true;
  cv_log("data_ark_store", 0, "Problem renaming %s: %s", temporary.text, std::strerror(errno));
  return false;
}

// Answers whether no ark is left in the directory, which could not be opened where `refused` is not 0.
bool delete_file(const data_ark& ark, const Descriptor& directory, int refused) {
  if (refused != 0) return refused == ENOENT;
  if (ark.unreadable_in_place) return true;
  return unlinkat(directory.number(), ark_file, 0) == 0 || errno == ENOENT;
}

bool store_entries(data_ark& ark) {
  const Ref<plist::Dictionary> entries = persistent_entries(ark);
  const Descriptor directory(open_state_directory());
  const int refused = directory.is_open() ? 0 : errno;
  if (entries && entries->size() != 0) {
    if (!replace_file(*entries, refused == ELOOP)) return false;
    ark.unreadable_in_place = false;
    return true;
  }
  return delete_file(ark, directory, refused) && entries;
}

}  // namespace

DataArk data_ark_load() {
  try {
    DataArk ark(new data_ark());
    load_entries(*ark);
    return ark;
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

void data_ark_store(data_ark* ark) {
  assert_ark_owner();
  ark->dirty = 0;  // whether or not the store works
  ++ark->stores;
  if (!store_entries(*ark)) ++ark->failed_stores;
}

}  // namespace corvane
