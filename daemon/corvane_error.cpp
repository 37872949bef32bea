#include "daemon/corvane_error.h"

#include "wire/messages.h"

namespace corvane {

using plist::Ref;

namespace {

const char* description_of(int32_t code) {
  switch (code) {
    case CorvaneError::success:
      return "Success";
    case CorvaneError::unexpected_parameter:
      return "Unexpeceted parameter";
    default:
      return "No error description, use the force";
  }
}

Ref<plist::Dictionary> user_info(const char* description) {
  Ref<plist::MutableDictionary> user_info = plist::MutableDictionary::create(1);
  user_info->set(wire::error_description_key, plist::String::create(description));
  return user_info;
}

}  // namespace

ErrorObject CorvaneError::getError(int32_t code) {
  return {plist::String::create(domain), code, getErrorDescription(code)};
}

Ref<plist::Dictionary> CorvaneError::getErrorDescription(int32_t code) { return user_info(description_of(code)); }

ErrorObject operation_failed_because(const char* description) {
  return {plist::String::create(CorvaneError::domain), CorvaneError::operation_failed, user_info(description)};
}

}  // namespace corvane
