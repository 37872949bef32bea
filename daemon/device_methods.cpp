#include "daemon/device_methods.h"

#include <string_view>

#include "daemon/answers.h"
#include "device/carrier_bundle.h"
#include "device/device_type.h"
#include "device/vexa_helper.h"
#include "state/values.h"
#include "wire/limits.h"
#include "wire/methods.h"

namespace corvane {

using plist::Boolean;
using plist::MutableDictionary;
using plist::Ref;

namespace {

bool are_property_names(const plist::Array& names) {
  if (names.size() > wire::device_properties_limit) return false;
  for (const Ref<plist::Value>& value : names.items()) {
    const plist::String* name = as_string(value.get());
    if (name == nullptr || name->view().size() > wire::device_property_name_size) return false;
  }
  return true;
}

void set_if_any(MutableDictionary& dictionary, std::string_view key, plist::Value* value) {
  if (value != nullptr) dictionary.set(key, value);
}

Ref<plist::Dictionary> describe_device_type() {
  Ref<MutableDictionary> type = MutableDictionary::create();
  set_if_any(*type, "ProductType", device_product_type());
  set_if_any(*type, "DeviceClass", device_class_override());
  type->set("Overridden", Boolean::of(device_type_overridden()));
  type->set("FPGA", Boolean::of(device_is_fpga()));
  type->set("HasTelephony", Boolean::of(device_has_telephony()));
  type->set("SlateFamily", Boolean::of(device_is_slate_family()));
  type->set("BasebandClass", plist::Number::create_int32(device_baseband_class()));
  return type;
}

}  // namespace

void DeviceMethods::copyDeviceTypeWithProperties_withCompletionBlock(const plist::Array& names,
                                                                     const CompletionBlock& completion) {
  if (!are_property_names(names)) return answer_bad_argument(completion);
  const Ref<MutableDictionary> reply = MutableDictionary::create(), properties = MutableDictionary::create();
  const Ref<plist::MutableArray> errors = plist::MutableArray::create();
  for (const Ref<plist::Value>& name : names.items()) {
    VexaHlpr::getSharedInstance().addAVexaKey_toDictionary_required_errors(*as_string(name.get()), *properties,
                                                                           true, *errors);
  }
  reply->set(wire::device_type_key, describe_device_type());
  reply->set(wire::properties_key, properties);
  reply->set(wire::errors_key, errors);
  answer(completion, *reply);
}

void DeviceMethods::copyCarrierBundleWithCompletionBlock(const CompletionBlock& completion) {
  const Ref<plist::Dictionary> bundle = copy_carrier_bundle_info();
  if (!bundle) return answer_nothing(completion);
  const Ref<MutableDictionary> reply = MutableDictionary::create();
  reply->set(wire::carrier_bundle_key, bundle);
  answer(completion, *reply);
}

}  // namespace corvane
