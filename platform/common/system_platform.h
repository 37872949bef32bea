#pragma once

#include <memory>
#include <string>

#include "platform/common/device.h"
#include "platform/common/event_loops.h"
#include "platform/common/notification_service.h"
#include "platform/common/preferences.h"
#include "platform/common/start_up.h"
#include "platform/common/system_clock.h"
#include "platform/common/system_files.h"
#include "platform/common/system_logger.h"
#include "platform/platform.h"

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
  std::unique_ptr<ServiceListener> create_listener(std::string_view service_name, ServiceAccess access) override;
  const std::string& root() const override { return root_; }

 private:
  std::string socket_path(std::string_view service_name) const;

  const std::string root_;
  SystemFiles files_;
  SystemClock clock_;
  PreferenceFiles preferences_;
  SystemLogger logger_;
  const std::unique_ptr<Device> device_;
  MainLoop main_loop_;
  RequestQueue request_queue_;
  NotificationService notifications_;
};

}  // namespace corvane
