#include "daemon/service.h"

#include "daemon/protocol.h"
#include "device/regulatory_images.h"
#include "platform/platform.h"

namespace corvane {

using plist::Ref;

Ref<plist::Number> CorvaneDaemon::booleanToNumber(const plist::Value* value) {
  return plist::Number::create_int32(value == plist::Boolean::yes() ? 1 : 0);
}

bool CorvaneDaemon::listener_shouldAcceptNewConnection(ServiceListener&, ServiceConnection& connection) {
  connection.set_exported_interface(corvane_protocol());
  connection.set_exported_object(*this);
  connection.set_delivery_queue(platform().request_queue());
  connection.resume();
  return true;
}

void CorvaneDaemon::copyRegulatoryImagesWithCompletionBlock(const CompletionBlock& completion) {
  const Ref<plist::Dictionary> images = copy_regulatory_images();
  if (completion) completion(images.get(), nullptr);
}

}  // namespace corvane
