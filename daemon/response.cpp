#include "daemon/response.h"

#include <utility>

#include "daemon/log/cv_log.h"
#include "state/values.h"
#include "wire/messages.h"

namespace corvane {

using plist::Ref;

namespace {

// Made at program start, because each response has it.
const Ref<plist::String> request_key = plist::String::create(wire::request_key);

}  // namespace

Ref<plist::MutableDictionary> create_response(Ref<plist::Value> request) {
  Ref<plist::MutableDictionary> response = create_dict();
  response->set(request_key, std::move(request));
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
