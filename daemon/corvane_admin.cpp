#include "daemon/corvane_admin.h"

#include <cerrno>

#include "daemon/answers.h"
#include "daemon/connection_setup.h"
#include "daemon/protocols.h"
#include "daemon/status.h"
#include "device/radio_report.h"
#include "device/regulatory_images.h"
#include "platform/code_signing.h"
#include "plist/entitlements_blob.h"
#include "support/entitlements.h"

namespace corvane {

namespace {

constexpr char no_version[] =
    "the device has no ProductVersion: add it to /etc/corvaned/properties.plist (simulated device: to its "
    "profile), or VERSION_ID to os-release";
constexpr char not_permitted[] =
    "the daemon may not look at this process: it needs CAP_SYS_PTRACE, and CAP_DAC_READ_SEARCH where only its "
    "owner may read the executable";

bool may_look_at(int32_t pid) {
  char header[plist::entitlements_header_size];
  return sigq(pid, sigq_entitlements, header, sizeof header) == 0 || (errno != EACCES && errno != EPERM);
}

}  // namespace

bool CorvaneAdmin::listener_shouldAcceptNewConnection(IpcListener&, IpcConnection& connection) {
  set_up_connection(connection, corvane_admin_protocol(), *this);
  return true;
}

void CorvaneAdmin::storeRegulatoryImages_withCompletionBlock(plist::Value& images,
                                                             const CompletionBlock& completion) {
  if (store_regulatory_images(images) == 0) return answer_nothing(completion);
  if (!copy_product_version()) return answer_failure_because(completion, no_version);
  answer_failure(completion);
}

void CorvaneAdmin::set_listeners(const IpcListener& public_listener, const IpcListener& admin_listener) {
  public_listener_ = &public_listener;
  admin_listener_ = &admin_listener;
}

void CorvaneAdmin::copyStatusWithCompletionBlock(const CompletionBlock& completion) {
  answer(completion, *copy_status({public_listener_, admin_listener_, ark()}));
}

void CorvaneAdmin::copyRadioWithCompletionBlock(const CompletionBlock& completion) {
  answer(completion, *copy_radio_report(ark()));
}

void CorvaneAdmin::copyEntitlementsForPID_withCompletionBlock(int32_t pid, const CompletionBlock& completion) {
  const auto entitlements = copy_entitlements_for_pid(pid);
  if (!completion) return;
  if (entitlements || may_look_at(pid)) return completion(entitlements.get(), nullptr);
  answer_failure_because(completion, not_permitted);
}

}  // namespace corvane
