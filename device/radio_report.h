#pragma once

#include "plist/value.h"
#include "state/data_ark.h"

namespace corvane {

/// What the telephony service says now, and what the ark has of it, for an operator to compare. Only asks: no fact
/// is stored, and nothing is posted. The phone number and the firmware's security information are logged as they
/// always are where they are asked for. An ark that is null has nothing. docs/wire-protocol.md tells the entries.
/// Request queue. Throws std::bad_alloc where memory is out.
plist::Ref<plist::Dictionary> copy_radio_report(data_ark* ark);

}  // namespace corvane
