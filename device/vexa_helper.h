#pragma once

#include "plist/value.h"

namespace corvane {

/// How request handlers ask the device-property service and gather its answers. It has no state: any thread may
/// use it, with a dictionary and an error list that no other thread uses.
class VexaHlpr {
 public:
  /// An owned value, or null when there is no answer. A null name asks nothing and gives null.
  plist::Ref<plist::Value> copyAnswer(const plist::String* name);

  /// The answer read as a Boolean, whatever it is: a Boolean's value, true for a number that is not zero,
  /// false for everything else and for no answer.
  bool getBoolAnswer(const plist::String* name);

  /// Sets the answer for `key` in `dictionary`. Without an answer the dictionary stays as it is and a line
  /// is logged; for a required key the string "No <key>" is appended to `errors` as well.
  /// Throws std::bad_alloc where memory is out.
  void addAVexaKey_toDictionary_required_errors(plist::String& key, plist::MutableDictionary& dictionary,
                                                bool required, plist::MutableArray& errors);

  /// Created at the first call, from whichever thread; lives until the process ends.
  static VexaHlpr& getSharedInstance();

 private:
  VexaHlpr() = default;
};

}  // namespace corvane
