#include "daemon/request.h"

#include <utility>

#include "daemon/log.h"
#include "plist/reader.h"
#include "state/values.h"
#include "wire/limits.h"
#include "wire/messages.h"

namespace corvane {

using plist::Ref;

Ref<plist::Dictionary> copy_dict_from_port_data(const Message* message) {
  if (message == nullptr || message->kind != Message::raw_data) return nullptr;
  const plist::Decoded decoded =
      plist::decode(message->body, plist::Containers::immutable, wire::request_depth_limit);
  if (!decoded.value) {
    cv_log("copy_dict_from_port_data", 0, "PlistCreateWithData failed: %@", decoded.error);
    return nullptr;
  }
  plist::Dictionary* dictionary = as_dictionary(decoded.value.get());
  if (dictionary == nullptr) cv_log("copy_dict_from_port_data", 0, "got something other than a dictionary");
  return dictionary;
}

Ref<plist::MutableDictionary> create_response(Ref<plist::Value> request) {
  Ref<plist::MutableDictionary> response = create_dict();
  response->set(wire::request_key, std::move(request));
  return response;
}

void set_response_error(const char* reason, plist::MutableDictionary& response, Ref<plist::Value> error) {
  const plist::String* text = as_string(error.get());
  const char* shown_reason = reason == nullptr ? " " : reason;
  if (text != nullptr) {
    cv_log("set_response_error", 0, "%s %@", shown_reason, text);
  } else {
    cv_log("set_response_error", 0, "%s %s", shown_reason, "NULL");
  }
  response.set(wire::error_key, std::move(error));
}

}  // namespace corvane
