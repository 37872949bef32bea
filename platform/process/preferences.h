#pragma once

#include <map>
#include <mutex>
#include <string>
#include <string_view>

#include "platform/preferences.h"
#include "platform/process/small_file.h"

namespace corvane {

/// Preferences in files, one dictionary for each domain:
/// <root>/private/var/mobile/Library/Preferences/<domain>.plist. A missing or bad file sets nothing.
class PreferenceFiles final : public Preferences {
 public:
  explicit PreferenceFiles(const std::string& root);

  plist::Ref<plist::Value> copy_value(std::string_view domain, std::string_view key) override;

 private:
  DictionaryFile& file_of(std::string_view domain);

  const std::string folder_;
  std::mutex mutex_;
  std::map<std::string, DictionaryFile, std::less<>> files_;
};

}  // namespace corvane
