#pragma once

#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "platform/common/no_telephony.h"
#include "platform/device_properties.h"
#include "platform/files.h"
#include "platform/hardware_registry.h"
#include "platform/logger.h"
#include "platform/named_service.h"
#include "platform/notifications.h"
#include "platform/platform.h"
#include "platform/preferences.h"
#include "platform/run_loop.h"
#include "platform/telephony.h"

namespace corvane::testing {

/// A platform for unit tests: a root of its own in a temporary folder, real files whose facility can be made
/// to fail, device properties from a map, a log and posts that are kept, a request queue that does its work at
/// once and a main queue that does it when told.
///
/// There is one per process, installed at first use, because the daemon's log keeps its handle for life.
class TestPlatform final : public Platform,
                           Logger,
                           Files,
                           DeviceProperties,
                           Notifications,
                           Preferences,
                           HardwareRegistry,
                           WorkQueue,
                           RunLoop {
 public:
  struct Line {
    int level;
    std::string text;
  };

  /// The installed platform, reset: an empty root with the folders that a device's image has, no
  /// properties, an empty log, nothing failing.
  static TestPlatform& fresh();
  /// The installed platform as it is.
  static TestPlatform& installed();

  ~TestPlatform() override;

  /// What was logged since `fresh` or the last call, oldest first.
  std::vector<Line> take_lines();
  /// Their texts alone.
  std::vector<std::string> take_texts();

  /// For the statement of a death test, in which no destructor will run: removes the root, and from now on
  /// also writes each line, "<level> <text>", to standard error.
  void prepare_to_die();

  std::map<std::string, plist::Ref<plist::Value>, std::less<>> properties;
  size_t properties_asked = 0;
  int level = no_level;
  bool refuse_log_handle = false;
  size_t handles_opened = 0;
  std::vector<std::string> disk_copies;
  /// Preferences by "domain/key", and registry properties by "path/key"; "path" alone is a node without any.
  std::map<std::string, plist::Ref<plist::Value>, std::less<>> preference_values;
  std::map<std::string, plist::Ref<plist::Value>, std::less<>> registry;
  /// A service that has nothing, unless a test brings its own.
  Telephony* telephony_service;
  /// The names of what was posted.
  std::vector<std::string> posted;
  /// Does the main queue's work, which waits until here.
  void run_main_queue();
  /// When set, `locate` fails with this errno.
  int locate_error = 0;

  Logger& logger() override { return *this; }
  Files& files() override { return *this; }
  DeviceProperties& device_properties() override { return *this; }
  Notifications& notifications() override { return *this; }
  HardwareRegistry& hardware_registry() override { return *this; }
  Telephony& telephony() override { return *telephony_service; }
  Preferences& preferences() override { return *this; }
  RunLoop& main_run_loop() override { return *this; }
  WorkQueue& main_queue() override { return main_queue_; }
  WorkQueue& request_queue() override { return *this; }
  std::unique_ptr<ServiceListener> create_listener(std::string_view, ServiceAccess) override { return nullptr; }
  const std::string& root() const override { return root_; }

 private:
  struct MainQueue final : WorkQueue {
    void submit(std::function<void()> work) override { waiting.push_back(std::move(work)); }
    bool is_current() const override { return true; }
    void create(const char*) override {}

    std::vector<std::function<void()>> waiting;
  };

  TestPlatform();

  Handle* open(const char* name, int options) override;
  void enable_disk_copy(Handle* handle, const char* path, int files, size_t bytes) override;
  int configured_level(const char* name) override;
  void write(Handle* handle, int level, const char* tag, const char* format, const plist::String& line) override;

  int open(const char* path, int flags, mode_t mode, int protection_class) override;
  int locate(int descriptor, char (&path)[path_limit + 1]) override;

  plist::Ref<plist::Value> copy_answer(const plist::String& name) override;
  plist::Ref<plist::Value> copy_value(std::string_view domain, std::string_view key) override;
  bool has_node(std::string_view path) override;
  plist::Ref<plist::Value> copy_property(std::string_view path, std::string_view key) override;

  void resume() override {}
  void post(const plist::String& name) override { posted.emplace_back(name.view()); }

  void submit(std::function<void()> work) override { work(); }
  bool is_current() const override { return true; }
  void create(const char*) override {}
  void run() override {}
  void watch(int, std::function<void()>) override {}

  MainQueue main_queue_;
  NoTelephony no_telephony_;
  std::string base_;
  std::string root_;
  std::mutex lines_mutex_;
  std::vector<Line> lines_;
  bool dying_ = false;
};

/// How many descriptors the process holds.
size_t open_descriptors();

void write_file(const std::string& path, std::string_view bytes);
std::string read_file(const std::string& path);

}  // namespace corvane::testing
