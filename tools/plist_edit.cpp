#include "tools/plist_edit.h"

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "plist/writer.h"

namespace corvane::tools {

using plist::cast;
using plist::Ref;

namespace {

[[noreturn]] void fail(const std::string& path, const std::string& why) { throw FileFault(path, why); }

std::string encode(const std::string& path, const plist::Value& value, plist::Encoding encoding) {
  std::string bytes;
  Ref<plist::String> fault;
  if (encoding == plist::Encoding::xml) {
    fault = plist::encode_xml(value, bytes);
  } else {
    plist::ByteChain chain;
    fault = plist::encode_binary(value, chain, SIZE_MAX);
    for (const std::string_view piece : chain.pieces()) bytes += piece;
  }
  if (fault) fail(path, std::string(fault->view()));
  return bytes;
}

// Renames a temporary file over it, so that a reader finds the old content or the new, and nothing else.
void replace(const std::string& path, std::string_view bytes) {
  std::error_code error;
  const std::string target = std::filesystem::canonical(path, error);
  struct stat status {};
  if (error || stat(target.c_str(), &status) != 0) fail(path, std::strerror(errno));
  std::string temporary = target + ".XXXXXX";
  const int descriptor = mkstemp(temporary.data());
  if (descriptor < 0) fail(path, std::strerror(errno));
  const bool written = write_all(descriptor, bytes) && fchmod(descriptor, status.st_mode & 07777) == 0;
  const int write_error = errno;
  close(descriptor);
  if (written && rename(temporary.c_str(), target.c_str()) == 0) return;
  const int reason = written ? errno : write_error;
  unlink(temporary.c_str());
  fail(path, std::strerror(reason));
}

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
  replace(path, encode(path, *edit.file.value, edit.file.encoding));
}

}  // namespace

plist::Decoded read_plist_file(const std::string& path, plist::Containers containers) {
  plist::Decoded decoded = plist::decode(plist::Data::create(read_file(path)), containers);
  if (decoded.error) fail(path, std::string(decoded.error->view()));
  return decoded;
}

void set_entry(const std::string& path, std::string_view key_path, Ref<plist::Value> value) {
  const Edit edit = begin_edit(path, key_path, true);
  edit.dictionary->set(edit.last_key, std::move(value));
  end_edit(path, edit);
}

void unset_entry(const std::string& path, std::string_view key_path) {
  const Edit edit = begin_edit(path, key_path, false);
  if (edit.dictionary != nullptr && edit.dictionary->remove(edit.last_key)) end_edit(path, edit);
}

}  // namespace corvane::tools
