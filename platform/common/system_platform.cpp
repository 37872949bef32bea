#include "platform/common/system_platform.h"

#include <utility>

#include "platform/common/local_listener.h"
#include "wire/messages.h"

namespace corvane {

SystemPlatform::SystemPlatform(const Environment& environment, std::unique_ptr<Device> device)
    : root_(environment.root),
      preferences_(environment.root),
      logger_(preferences_, environment.log_to_stderr),
      device_(std::move(device)),
      notifications_(socket_path(wire::notification_service), request_queue_) {}

std::unique_ptr<ServiceListener> SystemPlatform::create_listener(std::string_view service_name,
                                                                 ServiceAccess access) {
  return create_local_listener(socket_path(service_name), access, request_queue_);
}

std::string SystemPlatform::socket_path(std::string_view service_name) const {
  return root_ + std::string(wire::socket_folder) + "/" + std::string(service_name);
}

}  // namespace corvane
