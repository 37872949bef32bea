#include "platform/common/system_platform.h"

#include <utility>

#include "platform/common/local_listener.h"
#include "wire/messages.h"

namespace corvane {

SystemPlatform::SystemPlatform(const Environment& environment, std::unique_ptr<Device> device)
    : root_(environment.root),
      preferences_(environment.root),
      logger_(preferences_, environment.log_to_stderr),
      device_(std::move(device)) {}

std::unique_ptr<ServiceListener> SystemPlatform::create_listener(std::string_view service_name,
                                                                 ServiceAccess access) {
  const std::string path = system_path(std::string(wire::socket_folder) + "/" + std::string(service_name));
  return create_local_listener(path, access, request_queue_);
}

}  // namespace corvane
