#pragma once

#include "plist/value.h"

namespace corvane {

/// A new response to the request that `request` names. Never null.
plist::Ref<plist::MutableDictionary> create_response(plist::Ref<plist::Value> request);

/// Logs the reason, which may be null, and the error, and stores the error under "Error" in place of an
/// earlier one. An error that is not a string is stored all the same.
void set_response_error(const char* reason, plist::MutableDictionary& response, plist::Ref<plist::Value> error);

}  // namespace corvane
