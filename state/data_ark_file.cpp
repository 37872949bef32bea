#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <new>
#include <stdio.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

#include "daemon/log/cv_log.h"
#include "state/data_ark.h"
#include "state/data_ark_state.h"
#include "state/plist_file.h"
#include "state/state_directory.h"
#include "state/values.h"

namespace corvane {

using plist::Ref;

namespace {

constexpr char ark_file[] = "data_ark.plist";

bool may_be_regular_file(const char* path) {
  struct stat status;
  return lstat(path, &status) == 0 ? S_ISREG(status.st_mode) : errno != ENOENT;
}

// Start-up stores at once and would overwrite what may still be worth a look. False: the file is still there.
bool set_aside(const char* path) {
  const std::string aside = std::string(path) + ".unreadable";
  for (int i = 0;; ++i) {
    const std::string name = i == 0 ? aside : aside + "." + std::to_string(i);
    if (renameat2(AT_FDCWD, path, AT_FDCWD, name.c_str(), RENAME_NOREPLACE) == 0) return true;
    if (errno != EEXIST) break;
  }
  cv_log("data_ark_load", 0, "Problem renaming %s: %s", path, std::strerror(errno));
  return false;
}

Ref<plist::Dictionary> persistent_entries(const data_ark& ark) {
  if (!ark.values) return plist::MutableDictionary::create();
  return plist::MutableDictionary::select(*ark.values, [&ark](const plist::Dictionary::Entry& entry) {
    return (ark.attributes_of(entry.key->view()) & transient_attributes) == 0;
  });
}

bool replace_file(const StatePath& path, const plist::Dictionary& entries) {
  char temporary[sizeof path.text + sizeof ".XXXXXX"];
  std::snprintf(temporary, sizeof temporary, "%s.XXXXXX", path.text);
  if (store_dict(temporary, entries) != 0) {
    cv_log("data_ark_store", 0, "Could not store %s", temporary);
    return false;
  }
  if (rename(temporary, path.text) == 0) return true;
  cv_log("data_ark_store", 0, "Problem renaming %s: %s", temporary, std::strerror(errno));
  return false;
}

void store_entries(data_ark& ark) {
  const StatePath path = state_path(ark_file);
  Ref<plist::Dictionary> entries;
  try {
    entries = persistent_entries(ark);
  } catch (const std::bad_alloc&) {
    cv_log("data_ark_store", 0, "Nothing mutable changed!");
  }
  if (!entries || entries->size() == 0) {
    if (!ark.unreadable_in_place) unlink(path.text);
  } else if (replace_file(path, *entries)) {
    ark.unreadable_in_place = false;
  }
}

}  // namespace

DataArk data_ark_load() {
  DataArk ark(new (std::nothrow) data_ark());
  if (ark == nullptr) return nullptr;
  const StatePath path = state_path(ark_file);
  const Ref<plist::Value> value = load_mutable_dict(path.text);
  ark->values = plist::cast<plist::MutableDictionary>(value.get());
  if (ark->values) return ark;
  cv_log("data_ark_load", 0, "Could not load %s", path.text);
  if (may_be_regular_file(path.text)) ark->unreadable_in_place = !set_aside(path.text);
  return ark;
}

void data_ark_store(data_ark* ark) {
  assert_ark_owner();
  store_entries(*ark);
  ark->dirty = 0;
}

}  // namespace corvane
