#pragma once

#include <cstdint>

#include "plist/value.h"

namespace corvane {

/// The error that a reply callback is given for a request that failed.
struct ErrorObject {
  plist::Ref<plist::String> domain;
  int32_t code;
  plist::Ref<plist::Dictionary> user_info;  ///< {"ErrorDescription": text}
};

/// The daemon's error domain, its codes and their texts. Clients see the texts: they stay letter for letter.
class CorvaneError {
 public:
  static constexpr const char* domain = "com.norvane.corvaned.error";
  static constexpr int32_t success = 0;
  static constexpr int32_t unexpected_parameter = 1;
  static constexpr int32_t operation_failed = 2;

  static ErrorObject getError(int32_t code);
  /// {"ErrorDescription": text}; codes without a text of their own share one.
  static plist::Ref<plist::Dictionary> getErrorDescription(int32_t code);
};

/// The error `operation_failed` with a description that tells what to do about the failure.
ErrorObject operation_failed_because(const char* description);

}  // namespace corvane
