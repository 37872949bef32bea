#pragma once

#include "platform/named_service.h"
#include "plist/value.h"

namespace corvane {

/// The dictionary that a raw-data message holds, immutable, in any property-list encoding. Null, in silence,
/// for no message or one of another kind; null with a log line for a body that does not parse (or nests
/// deeper than a request may) or is something other than a dictionary.
plist::Ref<plist::Dictionary> copy_dict_from_port_data(const Message* message);

/// A new response to the request that `request` names. Never null.
plist::Ref<plist::MutableDictionary> create_response(plist::Ref<plist::Value> request);

/// Logs the reason, which may be null, and the error, and stores the error under "Error" in place of an
/// earlier one. An error that is not a string is stored all the same.
void set_response_error(const char* reason, plist::MutableDictionary& response, plist::Ref<plist::Value> error);

}  // namespace corvane
