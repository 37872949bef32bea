#include "platform/simulated/simulated_telephony.h"

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <set>
#include <sys/inotify.h>
#include <system_error>
#include <unistd.h>
#include <utility>

#include "platform/report.h"
#include "platform/run_loop.h"

namespace corvane {

using plist::cast;
using plist::Ref;

namespace {

// The profile's keys for the queries, in the order of TelvoServerConnection::Query.
constexpr const char* query_keys[] = {"SIMIdentity",         "SubscriberIdentity", "FirmwareVersion",
                                      "BootloaderVersion",   "GroupIdentifier1",   "GroupIdentifier2",
                                      "FirmwareSecurityInfo"};

// Null where the snapshot is or has no such entry.
plist::Value* entry(const Ref<plist::Dictionary>& snapshot, std::string_view key) {
  return snapshot ? snapshot->get(key) : nullptr;
}

bool is_set(const Ref<plist::Dictionary>& snapshot, std::string_view flag) {
  return entry(snapshot, flag) == plist::Boolean::yes();
}

bool has_centre(const Ref<plist::Dictionary>& snapshot) { return snapshot && !is_set(snapshot, "NoCentre"); }

// What a bad number in "Errors" counts as.
constexpr int32_t bad_number = -1;

bool is_int32(const plist::Value* value) {
  const auto* number = cast<plist::Number>(value);
  if (number == nullptr || !number->is_integer() || number->type() == plist::Number::Type::uint64) return false;
  return std::in_range<int32_t>(number->int64());
}

int32_t number_in(const plist::Dictionary& error, std::string_view key) {
  const plist::Value* value = error.get(key);
  if (value == nullptr) return 0;
  return is_int32(value) ? static_cast<int32_t>(cast<plist::Number>(value)->int64()) : bad_number;
}

// The entry of "Errors" for a query, or null.
const plist::Dictionary* error_of(const Ref<plist::Dictionary>& snapshot, std::string_view query) {
  const auto* errors = cast<plist::Dictionary>(entry(snapshot, "Errors"));
  return errors == nullptr ? nullptr : cast<plist::Dictionary>(errors->get(query));
}

void report_bad_numbers(const std::string& path, const Ref<plist::Dictionary>& snapshot) {
  for (const char* query : query_keys) {
    const plist::Dictionary* error = error_of(snapshot, query);
    if (error == nullptr) continue;
    for (const char* key : {"Domain", "Error"}) {
      const plist::Value* value = error->get(key);
      if (value == nullptr || is_int32(value)) continue;
      report("profile %s: Telephony.Errors.%s.%s is not a 32-bit integer and counts as %d", path.c_str(), query,
             key, bad_number);
    }
  }
}

class SimulatedConnection final : public TelvoServerConnection {
 public:
  explicit SimulatedConnection(Ref<plist::Dictionary> snapshot) : snapshot_(std::move(snapshot)) {}

  TelvoStatus copy(Query query, Ref<plist::Value>& slot) override {
    const char* key = query_keys[static_cast<size_t>(query)];
    const plist::Dictionary* error = error_of(snapshot_, key);
    const TelvoStatus status =
        error == nullptr ? TelvoStatus{} : TelvoStatus{number_in(*error, "Domain"), number_in(*error, "Error")};
    if (!status.failed()) slot = entry(snapshot_, key);
    return status;
  }

 private:
  const Ref<plist::Dictionary> snapshot_;
};

// -1 with errno set where the folder cannot be watched.
int watch_folders_of(const std::string& path) {
  const int watcher = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  if (watcher < 0) return -1;
  // Where the profile is a link, the link or the file that it leads to may be replaced.
  std::error_code ignored;
  const std::filesystem::path itself = std::filesystem::absolute(path, ignored);
  const std::set<std::filesystem::path> folders{itself.parent_path(),
                                                std::filesystem::weakly_canonical(itself, ignored).parent_path()};
  for (const std::filesystem::path& folder : folders) {
    if (inotify_add_watch(watcher, folder.c_str(), IN_CLOSE_WRITE | IN_MOVED_TO | IN_CREATE) < 0) {
      const int error = errno;
      close(watcher);
      errno = error;
      return -1;
    }
  }
  return watcher;
}

void drain(int watcher) {
  char events[4096];
  while (read(watcher, events, sizeof events) > 0) {
  }
}

}  // namespace

SimulatedTelephony::SimulatedTelephony(Profile& profile) : profile_(profile) { take_new_snapshot(); }

// Returns the snapshot before, or null where there was none.
Ref<plist::Dictionary> SimulatedTelephony::take_new_snapshot() {
  const Ref<plist::Dictionary> profile = profile_.current();
  Ref<plist::Dictionary> fresh = cast<plist::Dictionary>(profile->get("Telephony"));
  const std::lock_guard lock(mutex_);
  return std::exchange(snapshot_, std::move(fresh));
}

Ref<plist::Dictionary> SimulatedTelephony::snapshot() {
  // Nobody is told of changes then, so that none can be missed.
  if (!is_watched_) take_new_snapshot();
  const std::lock_guard lock(mutex_);
  return snapshot_;
}

Ref<plist::Value> SimulatedTelephony::copy_entry(std::string_view key) { return entry(snapshot(), key); }

TelephonyCentre* SimulatedTelephony::default_centre() { return has_centre(snapshot()) ? this : nullptr; }

bool SimulatedTelephony::is_connected() {
  const Ref<plist::Dictionary> now = snapshot();
  return now && !is_set(now, "NoConnection");
}

std::unique_ptr<TelvoServerConnection> SimulatedTelephony::connect(void (*)()) {
  Ref<plist::Dictionary> now = snapshot();
  if (!now || is_set(now, "NoConnection")) return nullptr;
  if (last_connected_.get() != now.get()) report_bad_numbers(profile_.path(), now);
  last_connected_ = now;
  return std::make_unique<SimulatedConnection>(std::move(now));
}

TelvoRadioStatus SimulatedTelephony::copy_radio_status() {
  const Ref<plist::Value> record = copy_entry("RadioStatus");
  const auto* entries = cast<plist::Dictionary>(record.get());
  if (entries == nullptr) return {};
  return {entries->get("Readiness"), cast<plist::Dictionary>(entries->get("Properties"))};
}

Ref<plist::Value> SimulatedTelephony::sim_status() { return copy_entry("SIMStatus"); }

Ref<plist::Value> SimulatedTelephony::copy_my_phone_number() { return copy_entry("PhoneNumber"); }

void SimulatedTelephony::set_default_run_loop(RunLoop& run_loop) {
  const int watcher = watch_folders_of(profile_.path());
  if (watcher < 0) {
    return report("could not watch the folder of %s: %s", profile_.path().c_str(), std::strerror(errno));
  }
  // What changed before the watch began is not announced.
  take_new_snapshot();
  is_watched_ = true;
  try {
    run_loop.watch(watcher, [this, watcher] {
      drain(watcher);
      look_for_changes();
    });
  } catch (const std::system_error& error) {
    is_watched_ = false;
    close(watcher);
    report("could not watch the folder of %s: %s", profile_.path().c_str(), error.what());
  }
}

void SimulatedTelephony::add_observer(void* observer, Callback callback, std::string_view name) {
  observers_.add(observer, callback, name);
}

void SimulatedTelephony::look_for_changes() {
  const Ref<plist::Dictionary> before = take_new_snapshot();
  const Ref<plist::Dictionary> now = snapshot();
  if (!has_centre(now)) return;
  const auto changed = [&](std::string_view key) { return !plist::equal(entry(before, key), entry(now, key)); };
  const auto* identity = cast<plist::String>(entry(now, "SIMIdentity"));
  const bool has_sim = identity != nullptr && !identity->view().empty();

  if (has_sim && changed("SIMIdentity")) observers_.deliver(*this, telvo_sim_inserted);
  if (changed("SIMStatus")) observers_.deliver(*this, telvo_sim_status_changed);
  if (changed("PhoneNumber")) observers_.deliver(*this, telvo_phone_number_changed);
}

}  // namespace corvane
