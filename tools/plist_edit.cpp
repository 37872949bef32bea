#include "tools/plist_edit.h"

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <sys/stat.h>
#include <vector>

#include "tools/plist_file.h"

namespace corvane::tools {

using plist::cast;
using plist::Ref;

namespace {

[[noreturn]] void fail(const std::string& path, const std::string& why) { throw FileFault(path, why); }

std::vector<std::string_view> keys_of(std::string_view key_path) {
  std::vector<std::string_view> keys;
  for (size_t dot; (dot = key_path.find('.')) != std::string_view::npos; key_path.remove_prefix(dot + 1)) {
    keys.push_back(key_path.substr(0, dot));
  }
  keys.push_back(key_path);
  return keys;
}

struct Edit {
  plist::Decoded file;
  plist::MutableDictionary* dictionary;  // the one above the entry; null where it is missing
  std::string_view last_key;
};

Edit begin_edit(const std::string& path, std::string_view key_path, bool create_missing) {
  Edit edit{read_plist_file(path, plist::Containers::made_mutable), nullptr, {}};
  edit.dictionary = cast<plist::MutableDictionary>(edit.file.value.get());
  if (edit.dictionary == nullptr) fail(path, "not a dictionary");
  std::vector<std::string_view> keys = keys_of(key_path);
  edit.last_key = keys.back();
  keys.pop_back();
  for (const std::string_view key : keys) {
    plist::Value* next = edit.dictionary->get(key);
    if (next == nullptr && !create_missing) return {std::move(edit.file), nullptr, edit.last_key};
    if (next == nullptr) edit.dictionary->set(key, plist::MutableDictionary::create());
    edit.dictionary = cast<plist::MutableDictionary>(edit.dictionary->get(key));
    if (edit.dictionary == nullptr) fail(path, "\"" + std::string(key) + "\" is not a dictionary");
  }
  return edit;
}

void end_edit(const std::string& path, const Edit& edit) {
  std::string bytes;
  try {
    bytes = encode_plist(*edit.file.value, edit.file.encoding);
  } catch (const std::invalid_argument& fault) {
    fail(path, fault.what());
  }
  struct stat status {};
  if (stat(path.c_str(), &status) != 0) fail(path, std::strerror(errno));
  replace_file(path, bytes, status.st_mode & 07777);
}

}  // namespace

void set_entry(const std::string& path, std::string_view key_path, Ref<plist::Value> value) {
  const Edit edit = begin_edit(path, key_path, true);
  edit.dictionary->set(edit.last_key, std::move(value));
  end_edit(path, edit);
}

bool unset_entry(const std::string& path, std::string_view key_path) {
  const Edit edit = begin_edit(path, key_path, false);
  if (edit.dictionary == nullptr || !edit.dictionary->remove(edit.last_key)) return false;
  end_edit(path, edit);
  return true;
}

}  // namespace corvane::tools
