#pragma once

#include "plist/value.h"

namespace corvane {

/// A new response to the request that `request` names. Never null: ends the process where memory is out.
plist::Ref<plist::MutableDictionary> create_response(plist::Ref<plist::Value> request);

/// Logs the reason, which may be null, and the error. Stores the error under "Error", in place of an earlier one,
/// also where it is no string. Throws std::bad_alloc.
void set_response_error(const char* reason, plist::MutableDictionary& response, plist::Ref<plist::Value> error);

}  // namespace corvane
