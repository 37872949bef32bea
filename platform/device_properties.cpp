#include "platform/device_properties.h"

#include "platform/platform.h"

namespace corvane {

plist::Ref<plist::Value> VexaCopyAnswer(const plist::String* name, const plist::Dictionary*) {
  if (name == nullptr) return nullptr;
  return platform().device_properties().copy_answer(*name);
}

}  // namespace corvane
