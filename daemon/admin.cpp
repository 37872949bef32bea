#include "daemon/admin.h"

#include "daemon/protocol.h"
#include "device/regulatory_images.h"
#include "platform/platform.h"
#include "support/entitlements.h"

namespace corvane {

bool CorvaneAdmin::listener_shouldAcceptNewConnection(ServiceListener&, ServiceConnection& connection) {
  connection.set_exported_interface(corvane_admin_protocol());
  connection.set_exported_object(*this);
  connection.set_delivery_queue(platform().request_queue());
  connection.resume();
  return true;
}

void CorvaneAdmin::storeRegulatoryImages_withCompletionBlock(plist::Value& images,
                                                             const CompletionBlock& completion) {
  const bool stored = store_regulatory_images(images) == 0;
  if (!completion) return;
  if (stored) return completion(nullptr, nullptr);
  const ErrorObject error = CorvaneError::getError(CorvaneError::operation_failed);
  completion(nullptr, &error);
}

void CorvaneAdmin::copyEntitlementsForPID_withCompletionBlock(int32_t pid, const CompletionBlock& completion) {
  if (completion) completion(copy_entitlements_for_pid(pid).get(), nullptr);
}

}  // namespace corvane
