#pragma once

#include "platform/ipc_listener.h"

namespace corvane {

/// `CorvaneProtocol`, the methods of CorvaneDaemon.
const ExportedInterface& corvane_protocol();
/// `CorvaneAdminProtocol`, the methods of CorvaneAdmin.
const ExportedInterface& corvane_admin_protocol();

}  // namespace corvane
