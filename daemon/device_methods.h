#pragma once

#include "daemon/completion_block.h"
#include "plist/value.h"

namespace corvane {

/// The admin methods that tell of the device. Request queue.
class DeviceMethods {
 public:
  /// Answers {"DeviceType", "Properties", "Errors"}. Code 1 where there are too many names, or one is no string or
  /// too long.
  void copyDeviceTypeWithProperties_withCompletionBlock(const plist::Array& names,
                                                        const CompletionBlock& completion);

  /// Answers {"CarrierBundle"}, or no dictionary where there is no bundle, which is logged. Never an error.
  void copyCarrierBundleWithCompletionBlock(const CompletionBlock& completion);
};

}  // namespace corvane
