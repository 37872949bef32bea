#include "daemon/protocols.h"

#include <cstdint>
#include <limits>

#include "daemon/answers.h"
#include "daemon/corvane_admin.h"
#include "daemon/corvane_daemon.h"
#include "wire/messages.h"

namespace corvane {

namespace {

bool is_process_id(const plist::Number& number) {
  return number.is_integer() && number.type() != plist::Number::Type::uint64 && number.int64() > 0 &&
         number.int64() <= std::numeric_limits<int32_t>::max();
}

CorvaneDaemon& as_daemon(ExportedObject& object) { return static_cast<CorvaneDaemon&>(object); }
CorvaneAdmin& as_admin(ExportedObject& object) { return static_cast<CorvaneAdmin&>(object); }

// Whether the argument is missing, and null then, or of this kind.
template <class T>
bool read_optional(const plist::Dictionary& request, std::string_view name, T*& argument) {
  plist::Value* value = request.get(name);
  argument = plist::cast<T>(value);
  return value == nullptr || argument != nullptr;
}

bool read_ark_key(const plist::Dictionary& request, ArkKey& key) {
  return read_optional(request, wire::domain_key, key.domain) && read_optional(request, wire::key_key, key.key);
}

// Calls a method that takes no arguments.
template <auto method>
void call(ExportedObject& object, const plist::Dictionary&, const CompletionBlock& completion) {
  (as_admin(object).*method)(completion);
}

void copy_device_type(ExportedObject& object, const plist::Dictionary& request,
                      const CompletionBlock& completion) {
  const auto* names = plist::cast<plist::Array>(request.get(wire::properties_key));
  if (names == nullptr) return answer_bad_argument(completion);
  as_admin(object).copyDeviceTypeWithProperties_withCompletionBlock(*names, completion);
}

// Calls a method that takes nothing but the key of an entry.
template <void (ArkMethods::*method)(const ArkKey& key, const CompletionBlock& completion)>
void call_with_ark_key(ExportedObject& object, const plist::Dictionary& request,
                       const CompletionBlock& completion) {
  ArkKey key;
  if (!read_ark_key(request, key) || key.key == nullptr) return answer_bad_argument(completion);
  (as_admin(object).*method)(key, completion);
}

void set_ark_value(ExportedObject& object, const plist::Dictionary& request, const CompletionBlock& completion) {
  ArkKey key;
  plist::Value* value = request.get(wire::value_key);
  if (!read_ark_key(request, key) || key.key == nullptr || value == nullptr)
    return answer_bad_argument(completion);
  as_admin(object).setArkValue_forDomain_key_withCompletionBlock(*value, key, completion);
}

void set_ark_attributes(ExportedObject& object, const plist::Dictionary& request,
                        const CompletionBlock& completion) {
  ArkKey key;
  const auto* attributes = plist::cast<plist::Array>(request.get(wire::attributes_key));
  if (!read_ark_key(request, key) || attributes == nullptr) return answer_bad_argument(completion);
  as_admin(object).setArkAttributes_forDomain_key_withCompletionBlock(*attributes, key, completion);
}

void copy_ark_entries(ExportedObject& object, const plist::Dictionary& request,
                      const CompletionBlock& completion) {
  plist::String *domain, *after;
  const bool is_good =
      read_optional(request, wire::domain_key, domain) && read_optional(request, wire::after_key, after);
  if (!is_good) return answer_bad_argument(completion);
  as_admin(object).copyArkEntriesForDomain_after_withCompletionBlock(domain, after, completion);
}

void restore_ark_entries(ExportedObject& object, const plist::Dictionary& request,
                         const CompletionBlock& completion) {
  const auto* entries = plist::cast<plist::Array>(request.get(wire::entries_key));
  if (entries == nullptr) return answer_bad_argument(completion);
  as_admin(object).restoreArkEntries_withCompletionBlock(*entries, completion);
}

}  // namespace

const MethodTable& corvane_protocol() {
  static const MethodTable protocol{
      {wire::copy_regulatory_images,
       [](ExportedObject& object, const plist::Dictionary&, const CompletionBlock& completion) {
         as_daemon(object).copyRegulatoryImagesWithCompletionBlock(completion);
       }},
      {wire::copy_version,
       [](ExportedObject& object, const plist::Dictionary&, const CompletionBlock& completion) {
         as_daemon(object).copyVersionWithCompletionBlock(completion);
       }},
  };
  return protocol;
}

const MethodTable& corvane_admin_protocol() {
  static const MethodTable protocol{
      {wire::store_regulatory_images,
       [](ExportedObject& object, const plist::Dictionary& request, const CompletionBlock& completion) {
         plist::Value* images = request.get(wire::images_key);
         if (images == nullptr) return answer_bad_argument(completion);
         as_admin(object).storeRegulatoryImages_withCompletionBlock(*images, completion);
       }},
      {wire::copy_entitlements,
       [](ExportedObject& object, const plist::Dictionary& request, const CompletionBlock& completion) {
         const auto* pid = plist::cast<plist::Number>(request.get(wire::pid_key));
         if (pid == nullptr || !is_process_id(*pid)) return answer_bad_argument(completion);
         as_admin(object).copyEntitlementsForPID_withCompletionBlock(static_cast<int32_t>(pid->int64()),
                                                                     completion);
       }},
      {wire::copy_status, call<&CorvaneAdmin::copyStatusWithCompletionBlock>},
      {wire::copy_device_type, copy_device_type},
      {wire::copy_radio, call<&CorvaneAdmin::copyRadioWithCompletionBlock>},
      {wire::copy_carrier_bundle, call<&CorvaneAdmin::copyCarrierBundleWithCompletionBlock>},
      {wire::copy_ark_value, call_with_ark_key<&ArkMethods::copyArkValueForDomain_key_withCompletionBlock>},
      {wire::set_ark_value, set_ark_value},
      {wire::remove_ark_value, call_with_ark_key<&ArkMethods::removeArkValueForDomain_key_withCompletionBlock>},
      {wire::set_ark_attributes, set_ark_attributes},
      {wire::copy_ark_entries, copy_ark_entries},
      {wire::restore_ark_entries, restore_ark_entries},
      {wire::watch_ark_value, call_with_ark_key<&ArkMethods::watchArkValueForDomain_key_withCompletionBlock>},
  };
  return protocol;
}

}  // namespace corvane
