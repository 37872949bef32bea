#pragma once

#include <memory>
#include <string>

#include "platform/ipc_listener.h"
#include "platform/process/event_loops.h"

namespace corvane {

/// A listener on the stream socket `path`, with the limits that go with who may connect. Main thread. The
/// queue must outlive the listener; once it has its thread, everything happens there.
std::unique_ptr<IpcListener> create_local_listener(std::string path, IpcAccess access, RequestQueue& queue);

}  // namespace corvane
