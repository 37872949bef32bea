#include "platform/simulated/profile.h"

#include <utility>

#include "platform/report.h"

namespace corvane {

std::unique_ptr<Profile> Profile::open(const std::string& path, std::string& fault) {
  std::unique_ptr<Profile> profile(new Profile(path));
  const DictionaryFile::Contents first = profile->file_.contents();
  if (!first.dictionary) {
    fault = "profile " + path + ": " + first.fault;
    return nullptr;
  }
  profile->version_ = first.version;
  profile->last_good_ = first.dictionary;
  return profile;
}

plist::Ref<plist::Dictionary> Profile::current() {
  std::unique_lock lock(mutex_);
  DictionaryFile::Contents now = file_.contents();
  const bool is_new = now.version != std::exchange(version_, now.version);
  if (now.dictionary) last_good_ = std::move(now.dictionary);
  const plist::Ref<plist::Dictionary> answer = last_good_;
  lock.unlock();
  if (is_new && !now.fault.empty()) {
    report("profile %s: %s; the last good one stays", file_.path().c_str(), now.fault.c_str());
  }
  return answer;
}

}  // namespace corvane
