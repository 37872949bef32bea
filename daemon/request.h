#pragma once

#include "platform/ipc_listener.h"
#include "plist/value.h"

namespace corvane {

/// The dictionary, immutable, that a raw-data message holds in any property-list encoding. Null without a log line
/// for a null message and for one of another kind. Null with a log line for a body that does not parse, that nests
/// deeper than a request may, or that is no dictionary. Throws std::bad_alloc.
plist::Ref<plist::Dictionary> copy_dict_from_port_data(const Message* message);

}  // namespace corvane
