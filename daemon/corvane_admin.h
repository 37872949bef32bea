#pragma once

#include <cstdint>

#include "daemon/completion_block.h"
#include "platform/ipc_listener.h"

namespace corvane {

/// What the daemon's own user may ask for besides: the delegate of the admin listener and the object that
/// its connections export. Runs on the request queue.
class CorvaneAdmin final : public IpcListenerDelegate, public ExportedObject {
 public:
  bool listener_shouldAcceptNewConnection(IpcListener& listener, IpcConnection& connection) override;

  /// Replaces the stored regulatory images. Answers no dictionary, and an error where they could not be
  /// stored.
  void storeRegulatoryImages_withCompletionBlock(plist::Value& images, const CompletionBlock& completion);

  /// Answers the entitlements of a running process, or no dictionary where there are none or the log says why
  /// not. Never an error.
  void copyEntitlementsForPID_withCompletionBlock(int32_t pid, const CompletionBlock& completion);
};

}  // namespace corvane
