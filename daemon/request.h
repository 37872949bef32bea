#pragma once

#include "platform/ipc_listener.h"
#include "plist/value.h"

namespace corvane {

/// The dictionary that a raw-data message holds, immutable, in any property-list encoding. Null, in silence,
/// for no message or one of another kind; null with a log line for a body that does not parse (or nests
/// deeper than a request may) or is something other than a dictionary.
plist::Ref<plist::Dictionary> copy_dict_from_port_data(const Message* message);

}  // namespace corvane
