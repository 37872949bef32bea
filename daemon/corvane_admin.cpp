#include "daemon/corvane_admin.h"

#include "daemon/connection_setup.h"
#include "daemon/protocols.h"
#include "device/regulatory_images.h"
#include "support/entitlements.h"

namespace corvane {

namespace {

constexpr char no_version[] =
    "the device has no ProductVersion: add it to /etc/corvaned/properties.plist (simulated device: to its "
    "profile), "
    "or VERSION_ID to os-release";

ErrorObject store_error() {
  if (!copy_product_version()) return operation_failed_because(no_version);
  return CorvaneError::getError(CorvaneError::operation_failed);
}

}  // namespace

bool CorvaneAdmin::listener_shouldAcceptNewConnection(IpcListener&, IpcConnection& connection) {
  set_up_connection(connection, corvane_admin_protocol(), *this);
  return true;
}

void CorvaneAdmin::storeRegulatoryImages_withCompletionBlock(plist::Value& images,
                                                             const CompletionBlock& completion) {
  const bool stored = store_regulatory_images(images) == 0;
  if (!completion) return;
  if (stored) return completion(nullptr, nullptr);
  const ErrorObject error = store_error();
  completion(nullptr, &error);
}

void CorvaneAdmin::copyEntitlementsForPID_withCompletionBlock(int32_t pid, const CompletionBlock& completion) {
  if (completion) completion(copy_entitlements_for_pid(pid).get(), nullptr);
}

}  // namespace corvane
