#pragma once

#include "platform/ipc_listener.h"

namespace corvane {

/// What every listener's delegate does with a new connection: exports the object through the interface, has
/// requests delivered on the request queue, and resumes the connection.
void set_up_connection(IpcConnection& connection, const ExportedInterface& interface, ExportedObject& object);

}  // namespace corvane
