#include "daemon/corvane_error.h"

#include "wire/messages.h"

namespace corvane {

using plist::Ref;

namespace {

const char* description(int32_t code) {
  switch (code) {
    case CorvaneError::success:
      return "Success";
    case CorvaneError::unexpected_parameter:
      return "Unexpeceted parameter";
    default:
      return "No error description, use the force";
  }
}

}  // namespace

ErrorObject CorvaneError::getError(int32_t code) {
  return {plist::String::create(domain), code, getErrorDescription(code)};
}

Ref<plist::Dictionary> CorvaneError::getErrorDescription(int32_t code) {
  Ref<plist::MutableDictionary> user_info = plist::MutableDictionary::create(1);
  user_info->set(wire::error_description_key, plist::String::create(description(code)));
  return user_info;
}

}  // namespace corvane
