#include "device/vexa_helper.h"

#include <string>

#include "daemon/log/cv_log.h"
#include "platform/device_properties.h"
#include "state/values.h"

namespace corvane {

namespace {

bool is_not_zero(const plist::Number& number) {
  return number.is_integer() ? number.uint64() != 0 : number.real() != 0;
}

}  // namespace

plist::Ref<plist::Value> VexaHlpr::copyAnswer(const plist::String* name) {
  if (name == nullptr) return nullptr;
  return VexaCopyAnswer(name, nullptr);
}

bool VexaHlpr::getBoolAnswer(const plist::String* name) {
  const plist::Ref<plist::Value> answer = VexaCopyAnswer(name, nullptr);
  if (const plist::Boolean* boolean = as_boolean(answer.get())) return boolean->value();
  const plist::Number* number = as_number(answer.get());
  return number != nullptr && is_not_zero(*number);
}

void VexaHlpr::addAVexaKey_toDictionary_required_errors(plist::String& key, plist::MutableDictionary& dictionary,
                                                        bool required, plist::MutableArray& errors) {
  if (auto answer = copyAnswer(&key)) {
    dictionary.set(plist::Ref<plist::String>(&key), std::move(answer));
    return;
  }
  cv_log("-[VexaHlpr addAVexaKey:toDictionary:required:errors:]", 0, "Error - missing key: %s", key.c_string());
  if (required) errors.append(plist::String::create("No " + std::string(key.view())));
}

VexaHlpr& VexaHlpr::getSharedInstance() {
  static VexaHlpr shared_instance;
  return shared_instance;
}

}  // namespace corvane
