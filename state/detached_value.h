#pragma once

#include "plist/value.h"

namespace corvane {

/// An equal value that keeps no message in memory: large data in what was decoded are parts of the whole message.
/// The value itself where it holds none. Containers that were copied are immutable. Throws std::bad_alloc.
plist::Ref<plist::Value> detached_value(plist::Value& value);

}  // namespace corvane
