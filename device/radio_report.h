#pragma once

#include "plist/value.h"
#include "state/data_ark.h"

namespace corvane {

/// What the telephony service says now, and what the ark has of it, for an operator to compare. Only asks: no fact
/// is stored, nothing is posted, and a query that fails is not logged but answered. An ark that is null has
/// nothing. docs/wire-protocol.md tells the entries. Request queue. Throws std::bad_alloc where memory is out.
plist::Ref<plist::Dictionary> copy_radio_report(data_ark* ark);

}  // namespace corvane
