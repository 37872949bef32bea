#include "platform/system/system_platform.h"

#include <utility>

#include "platform/ipc/local_listener.h"
#include "wire/messages.h"
#include "wire/socket_address.h"

namespace corvane {

SystemPlatform::SystemPlatform(const Environment& environment, std::unique_ptr<Device> device)
    : root_(environment.root),
      preferences_(environment.root),
      logger_(preferences_, environment.log_to_stderr),
      device_(std::move(device)),
      notifications_(wire::socket_path(root_, wire::notification_service),
                     service_manager_.take_socket(wire::notification_service), request_queue_, socket_closer_) {}

std::unique_ptr<IpcListener> SystemPlatform::create_listener(std::string_view service_name, IpcAccess access) {
  LocalListener::Start start{service_manager_.take_socket(service_name), nullptr};
  if (access == IpcAccess::everyone) start.listening = [this] { service_manager_.start(); };
  return std::make_unique<LocalListener>(wire::socket_path(root_, service_name), access, request_queue_,
                                         socket_closer_, std::move(start));
}

}  // namespace corvane
