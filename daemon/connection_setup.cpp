#include "daemon/connection_setup.h"

#include "platform/platform.h"

namespace corvane {

void set_up_connection(IpcConnection& connection, const ExportedInterface& interface, ExportedObject& object) {
  connection.set_exported_interface(interface);
  connection.set_exported_object(object);
  connection.set_delivery_queue(platform().request_queue());
  connection.resume();
}

}  // namespace corvane
