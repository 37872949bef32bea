#include "platform/process/preferences.h"

namespace corvane {

PreferenceFiles::PreferenceFiles(const std::string& root)
    : folder_(root + "/private/var/mobile/Library/Preferences/") {}

plist::Ref<plist::Value> PreferenceFiles::copy_value(std::string_view domain, std::string_view key) {
  return file_of(domain).copy_value(key);
}

DictionaryFile& PreferenceFiles::file_of(std::string_view domain) {
  const std::lock_guard lock(mutex_);
  const auto found = files_.find(domain);
  if (found != files_.end()) return found->second;
  const std::string name(domain);
  return files_.try_emplace(name, folder_ + name + ".plist").first->second;
}

}  // namespace corvane
