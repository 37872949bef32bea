#pragma once

#include <atomic>

#include "daemon/completion_block.h"
#include "platform/ipc_listener.h"
#include "plist/value.h"

namespace corvane {

/// The one service object: the listeners' delegate, and what every connection exports. Its methods run on
/// the request queue.
class CorvaneDaemon final : public IpcListenerDelegate, public ExportedObject {
 public:
  /// The data ark, a `data_ark*`, which the object does not own; null until start-up has set it. Any thread.
  void* dark() const { return _dark; }
  void setDark(void* dark) { _dark = dark; }

  /// A number: 1 where `value` is the very object that stands for Boolean true, 0 for everything else, null
  /// and a number 1 included.
  static plist::Ref<plist::Number> booleanToNumber(const plist::Value* value);

  /// Accepts everyone: who may connect is decided by the sockets' modes.
  bool listener_shouldAcceptNewConnection(IpcListener& listener, IpcConnection& connection) override;

  /// The stored regulatory images as they were read, or null. Never an error.
  void copyRegulatoryImagesWithCompletionBlock(const CompletionBlock& completion);

 private:
  std::atomic<void*> _dark{nullptr};
};

}  // namespace corvane
