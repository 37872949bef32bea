#pragma once

#include <memory>
#include <string>
#include <string_view>

namespace corvane {

class Clock;
class CodeSigning;
class DeviceProperties;
class Files;
class HardwareRegistry;
class Logger;
class Notifications;
class Preferences;
class RunLoop;
class IpcListener;
class Telephony;
class WorkQueue;
struct DeviceStatus;
struct ProcessStatus;
enum class IpcAccess;

/// What the daemon asks of its system, one accessor per facility. `main` installs the one platform before
/// anything else; tests install their own. The facilities live as long as the platform.
class Platform {
 public:
  virtual ~Platform() = default;

  virtual Logger& logger() = 0;
  virtual Files& files() = 0;
  virtual Preferences& preferences() = 0;
  virtual DeviceProperties& device_properties() = 0;
  virtual Notifications& notifications() = 0;
  virtual HardwareRegistry& hardware_registry() = 0;
  virtual Telephony& telephony() = 0;
  virtual CodeSigning& code_signing() = 0;
  virtual Clock& clock() = 0;

  virtual RunLoop& main_run_loop() = 0;
  /// Work for the main thread.
  virtual WorkQueue& main_queue() = 0;
  /// Work for the one serial queue that touches the daemon's state.
  virtual WorkQueue& request_queue() = 0;

  /// A listener for a named local service; it accepts nobody before it is resumed. Throws std::system_error where
  /// the system refuses.
  virtual std::unique_ptr<IpcListener> create_listener(std::string_view service_name, IpcAccess access) = 0;

  /// What the daemon's process takes, and what its device is. Any thread.
  virtual ProcessStatus process_status() = 0;
  virtual DeviceStatus device_status() = 0;

  /// The folder below which all of the daemon's paths lie: absolute, fully resolved, no slash at its end;
  /// empty where that is the real root.
  virtual const std::string& root() const = 0;
};

/// The installed platform. Precondition: there is one.
Platform& platform();

/// Makes `installed` the platform that `platform()` answers. It must outlive every use; null takes it away.
void install_platform(Platform* installed);

/// Where one of the system's fixed absolute paths lies on this platform: below its root.
std::string system_path(std::string_view absolute_path);

}  // namespace corvane
