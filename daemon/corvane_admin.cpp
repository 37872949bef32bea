#include "daemon/corvane_admin.h"

#include "daemon/connection_setup.h"
#include "daemon/protocols.h"
#include "device/regulatory_images.h"
#include "support/entitlements.h"

namespace corvane {

bool CorvaneAdmin::listener_shouldAcceptNewConnection(IpcListener&, IpcConnection& connection) {
  set_up_connection(connection, corvane_admin_protocol(), *this);
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
