#pragma once

#include <cstdint>

#include "daemon/ark_methods.h"
#include "daemon/completion_block.h"
#include "daemon/device_methods.h"
#include "platform/ipc_listener.h"

namespace corvane {

/// The admin listener's delegate, and the object that its connections export: the methods that only the daemon's
/// own user may call. Request queue.
class CorvaneAdmin final : public IpcListenerDelegate,
                           public ExportedObject,
                           public ArkMethods,
                           public DeviceMethods {
 public:
  bool listener_shouldAcceptNewConnection(IpcListener& listener, IpcConnection& connection) override;

  /// Replaces the stored regulatory images. Answers no dictionary; error code 2 where they could not be stored. On
  /// a device without a ProductVersion its description tells the operator so, and what to do.
  void storeRegulatoryImages_withCompletionBlock(plist::Value& images, const CompletionBlock& completion);

  /// Answers the entitlements of a running process. No dictionary where it has none, and where they cannot be
  /// read, which is logged. Error code 2 where the daemon may not look at the process.
  void copyEntitlementsForPID_withCompletionBlock(int32_t pid, const CompletionBlock& completion);

  /// The listeners that the status tells of; they must outlive the request queue's thread. Before the first
  /// request.
  void set_listeners(const IpcListener& public_listener, const IpcListener& admin_listener);

  /// Answers what `copy_status` gives. Never an error.
  void copyStatusWithCompletionBlock(const CompletionBlock& completion);

  /// Answers what `copy_radio_report` gives. Never an error.
  void copyRadioWithCompletionBlock(const CompletionBlock& completion);

 private:
  const IpcListener* public_listener_ = nullptr;
  const IpcListener* admin_listener_ = nullptr;
};

}  // namespace corvane
