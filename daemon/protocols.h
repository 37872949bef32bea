#pragma once

#include "daemon/method_table.h"

namespace corvane {

/// `CorvaneProtocol`, the methods of CorvaneDaemon.
const MethodTable& corvane_protocol();
/// `CorvaneAdminProtocol`, the methods of CorvaneAdmin.
const MethodTable& corvane_admin_protocol();

}  // namespace corvane
