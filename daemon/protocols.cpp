#include "daemon/protocols.h"

#include <cstdint>
#include <limits>

#include "daemon/corvane_admin.h"
#include "daemon/corvane_daemon.h"
#include "daemon/method_table.h"
#include "wire/messages.h"

namespace corvane {

namespace {

// An argument that is missing or of the wrong kind.
void refuse(const CompletionBlock& completion) {
  const ErrorObject error = CorvaneError::getError(CorvaneError::unexpected_parameter);
  completion(nullptr, &error);
}

bool is_process_id(const plist::Number& number) {
  return number.is_integer() && number.type() != plist::Number::Type::uint64 && number.int64() > 0 &&
         number.int64() <= std::numeric_limits<int32_t>::max();
}

}  // namespace

const ExportedInterface& corvane_protocol() {
  static const MethodTable protocol{
      {wire::copy_regulatory_images,
       [](ExportedObject& object, const plist::Dictionary&, const CompletionBlock& completion) {
         static_cast<CorvaneDaemon&>(object).copyRegulatoryImagesWithCompletionBlock(completion);
       }},
  };
  return protocol;
}

const ExportedInterface& corvane_admin_protocol() {
  static const MethodTable protocol{
      {wire::store_regulatory_images,
       [](ExportedObject& object, const plist::Dictionary& request, const CompletionBlock& completion) {
         plist::Value* images = request.get(wire::images_key);
         if (images == nullptr) return refuse(completion);
         static_cast<CorvaneAdmin&>(object).storeRegulatoryImages_withCompletionBlock(*images, completion);
       }},
      {wire::copy_entitlements,
       [](ExportedObject& object, const plist::Dictionary& request, const CompletionBlock& completion) {
         const auto* pid = plist::cast<plist::Number>(request.get(wire::pid_key));
         if (pid == nullptr || !is_process_id(*pid)) return refuse(completion);
         static_cast<CorvaneAdmin&>(object).copyEntitlementsForPID_withCompletionBlock(
             static_cast<int32_t>(pid->int64()), completion);
       }},
  };
  return protocol;
}

}  // namespace corvane
