#pragma once

#include <atomic>

#include "daemon/completion_block.h"
#include "platform/ipc_listener.h"
#include "plist/value.h"

namespace corvane {

/// The one service object: the public listener's delegate, and the object that its connections export. Its methods
/// run on the request queue.
class CorvaneDaemon final : public IpcListenerDelegate, public ExportedObject {
 public:
  /// The data ark, a `data_ark*` that the object does not own. Null until start-up has set it. Any thread.
  void* dark() const { return _dark; }
  void setDark(void* dark) { _dark = dark; }

  /// The number 1 where `value` is the one object that stands for Boolean true; 0 for everything else, null and a
  /// number 1 included.
  static plist::Ref<plist::Number> booleanToNumber(const plist::Value* value);

  /// Accepts every client: the mode of the socket decides who may connect.
  bool listener_shouldAcceptNewConnection(IpcListener& listener, IpcConnection& connection) override;

  /// Answers the stored regulatory images as they were read, or no dictionary. Never an error.
  void copyRegulatoryImagesWithCompletionBlock(const CompletionBlock& completion);

  /// Answers {"Version"}. Reads no file and logs nothing. Never an error.
  void copyVersionWithCompletionBlock(const CompletionBlock& completion);

 private:
  std::atomic<void*> _dark{nullptr};
};

}  // namespace corvane
