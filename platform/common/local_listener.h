#pragma once

#include <memory>
#include <string>

#include "platform/common/event_loops.h"
#include "platform/named_service.h"

namespace corvane {

/// A listener on the stream socket `path`, with the limits that go with who may connect. Main thread. The
/// queue must outlive the listener; once it has its thread, everything happens there.
std::unique_ptr<ServiceListener> create_local_listener(std::string path, ServiceAccess access,
                                                       RequestQueue& queue);

}  // namespace corvane
