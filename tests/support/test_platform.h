#pragma once

#include <fcntl.h>
#include <filesystem>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "platform/clock.h"
#include "platform/code_signing.h"
#include "platform/device_properties.h"
#include "platform/files.h"
#include "platform/hardware_registry.h"
#include "platform/ipc_listener.h"
#include "platform/keys/openssl_vault.h"
#include "platform/logger.h"
#include "platform/notifications.h"
#include "platform/platform.h"
#include "platform/preferences.h"
#include "platform/run_loop.h"
#include "platform/status.h"
#include "platform/telephony.h"

namespace corvane::testing {

/// What a test can set and see of its platform.
struct TestPlatformState {
  struct Values : std::map<std::string, plist::Ref<plist::Value>, std::less<>> {
    using map::map;
    plist::Ref<plist::Value> get(std::string_view key) const {
      return count(key) == 0 ? nullptr : find(key)->second;
    }
  };

  Values properties;
  Values preference_values;  ///< by "domain/key"
  Values registry;           ///< by "path/key"; "path" alone is a node without any properties
  int level = Logger::no_level;
  std::vector<std::string> posted;
  uint64_t ticks_now = 0;  ///< of 125/3 ns
  std::string entitlements_blob;
  int locate_error = 0;                    ///< when set, `locate` fails with it
  Telephony* telephony_service = nullptr;  ///< when null, there is one that has nothing
};

/// A platform for unit tests: a root of its own in a temporary folder, real files, a log that is kept, a request
/// queue that does its work at once and a main queue that does it when told. There is one per process, installed
/// at first use, because the daemon's log keeps its handle for life.
class TestPlatform final : public Platform,
                           public TestPlatformState,
                           Logger,
                           Files,
                           DeviceProperties,
                           Notifications,
                           Preferences,
                           HardwareRegistry,
                           CodeSigning,
                           Clock {
 public:
  struct Line {
    int level;
    std::string text;
  };

  /// The installed platform, as it is or reset: a root with the folders of a device's image, an empty log.
  static TestPlatform& installed();
  static TestPlatform& fresh();

  ~TestPlatform() override { std::filesystem::remove_all(base_); }

  /// What was logged since `fresh` or the last call, oldest first; or the texts alone.
  std::vector<Line> take_lines();
  std::vector<std::string> take_texts();

  /// For the statement of a death test, in which no destructor will run: removes the root, and from now on
  /// also writes each line, "<level> <text>", to standard error.
  void prepare_to_die();
  /// Does the main queue's work, which waits until here.
  void run_main_queue();

  size_t handles_opened = 0;
  std::vector<std::string> disk_copies;

  Logger& logger() override { return *this; }
  Files& files() override { return *this; }
  DeviceProperties& device_properties() override { return *this; }
  Notifications& notifications() override { return *this; }
  HardwareRegistry& hardware_registry() override { return *this; }
  Telephony& telephony() override { return telephony_service == nullptr ? no_telephony_ : *telephony_service; }
  Vault& vault() { return vault_; }
  Preferences& preferences() override { return *this; }
  CodeSigning& code_signing() override { return *this; }
  Clock& clock() override { return *this; }
  RunLoop& main_run_loop() override { std::abort(); }  // no unit runs it
  WorkQueue& main_queue() override { return main_queue_; }
  WorkQueue& request_queue() override { return request_queue_; }
  std::unique_ptr<IpcListener> create_listener(std::string_view, IpcAccess) override { return nullptr; }
  ProcessStatus process_status() override { return {}; }
  DeviceStatus device_status() override { return {}; }
  const std::string& root() const override { return root_; }

 private:
  struct Queue final : WorkQueue {
    void submit(std::function<void()> work) override { at_once ? work() : waiting.push_back(std::move(work)); }
    bool is_current() const override { return true; }
    void create(const char*) override {}

    bool at_once = false;
    std::vector<std::function<void()>> waiting;
  };

  struct NoTelephony final : Telephony {
    TelephonyCentre* default_centre() override { return nullptr; }
    std::unique_ptr<TelvoServerConnection> connect(void (*)()) override { return nullptr; }
    TelvoRadioStatus copy_radio_status() override { return {}; }
    plist::Ref<plist::Value> sim_status() override { return nullptr; }
    plist::Ref<plist::Value> copy_my_phone_number() override { return nullptr; }
  };

  TestPlatform();

  Handle* open(const char*, int) override {
    ++handles_opened;
    return reinterpret_cast<Handle*>(this);  // opaque: any address will do
  }
  void enable_disk_copy(Handle*, const char* path, int files, size_t bytes) override {
    disk_copies.push_back(std::string(path) + " " + std::to_string(files) + " " + std::to_string(bytes));
  }
  int configured_level(const char*) override { return level; }
  Status status(Handle*) override { return {}; }
  void write(Handle* handle, int level, const char* tag, const char* format, const plist::String& line) override;

  int open(const char* path, int flags, mode_t mode, int) override {
    return ::open(path, flags | O_CLOEXEC, mode);
  }
  int locate(int descriptor, char (&path)[path_limit + 1]) override;

  plist::Ref<plist::Value> copy_answer(const plist::String& name) override { return properties.get(name.view()); }
  plist::Ref<plist::Value> copy_value(std::string_view domain, std::string_view key) override {
    return preference_values.get(std::string(domain) + "/" + std::string(key));
  }
  bool has_node(std::string_view path) override {
    const auto next = registry.lower_bound(path);
    return next != registry.end() && next->first.starts_with(path);
  }
  plist::Ref<plist::Value> copy_property(std::string_view path, std::string_view key) override {
    return registry.get(std::string(path) + "/" + std::string(key));
  }

  int copy_entitlements_blob(int32_t, std::string& blob) override {
    blob = entitlements_blob;
    return 0;
  }
  uint64_t ticks() override { return ticks_now; }
  Ratio ratio() override { return {125, 3}; }

  void resume() override {}
  void post(const plist::String& name) override { posted.emplace_back(name.view()); }
  NotificationCounts counts() const override { return {}; }

  Queue main_queue_;
  Queue request_queue_;
  NoTelephony no_telephony_;
  OpenSslVault vault_;
  const std::string base_;
  const std::string root_;
  std::mutex lines_mutex_;
  std::vector<Line> lines_;
  bool dying_ = false;
};

std::string make_temporary_folder();
/// Makes the folders that a device's image has.
void make_image_folders(const std::string& root);
size_t open_descriptors(const std::string& process = "self");

void write_file(const std::string& path, std::string_view bytes);
std::string read_file(const std::string& path);

}  // namespace corvane::testing
