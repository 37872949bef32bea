#pragma once

#include <memory>
#include <string>

#include "platform/device.h"
#include "platform/ipc/notification_server.h"
#include "platform/ipc/passed_descriptors.h"
#include "platform/log/system_logger.h"
#include "platform/platform.h"
#include "platform/process/event_loops.h"
#include "platform/process/preferences.h"
#include "platform/process/process_monitor.h"
#include "platform/process/service_manager.h"
#include "platform/process/start_up.h"
#include "platform/process/system_clock.h"
#include "platform/process/system_files.h"

namespace corvane {

/// The platform of a running daemon: the facilities that are the same everywhere, and those of the device
/// it was given.
class SystemPlatform final : public Platform {
 public:
  SystemPlatform(const Environment& environment, std::unique_ptr<Device> device);

  Logger& logger() override { return logger_; }
  Files& files() override { return files_; }
  Preferences& preferences() override { return preferences_; }
  DeviceProperties& device_properties() override { return device_->properties(); }
  Notifications& notifications() override { return notifications_; }
  HardwareRegistry& hardware_registry() override { return device_->registry(); }
  Telephony& telephony() override { return device_->telephony(); }
  CodeSigning& code_signing() override { return device_->code_signing(); }
  Clock& clock() override { return clock_; }
  RunLoop& main_run_loop() override { return main_loop_; }
  WorkQueue& main_queue() override { return main_loop_; }
  WorkQueue& request_queue() override { return request_queue_; }
  std::unique_ptr<IpcListener> create_listener(std::string_view service_name, IpcAccess access) override;
  ProcessStatus process_status() override { return process_monitor_.status(); }
  DeviceStatus device_status() override { return device_->status(); }
  const std::string& root() const override { return root_; }

 private:
  const std::string root_;
  const ProcessMonitor process_monitor_;
  SystemFiles files_;
  SystemClock clock_;
  PreferenceFiles preferences_;
  SystemLogger logger_;
  const std::unique_ptr<Device> device_;
  MainLoop main_loop_;
  RequestQueue request_queue_;
  ServiceManager service_manager_{main_loop_, request_queue_};
  SocketCloser socket_closer_;
  NotificationServer notifications_;
};

}  // namespace corvane
