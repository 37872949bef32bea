#pragma once

#include "plist/value.h"

namespace corvane {

/// The information dictionary of the carrier bundle that the device has selected, owned and immutable. Null,
/// with the reason logged, when the bundle's link leads nowhere or outside the directories for carrier
/// bundles, or when its information file cannot be read or holds no dictionary. Throws std::bad_alloc where memory
/// is out.
plist::Ref<plist::Dictionary> copy_carrier_bundle_info();

}  // namespace corvane
