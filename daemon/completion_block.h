#pragma once

#include <functional>

#include "daemon/corvane_error.h"
#include "plist/value.h"

namespace corvane {

/// Takes a method's answer: a dictionary or null, and an error or null, both borrowed. Called once, before
/// the method returns. An empty one is allowed, and the answer is dropped.
using CompletionBlock = std::function<void(plist::Dictionary* reply, const ErrorObject* error)>;

}  // namespace corvane
