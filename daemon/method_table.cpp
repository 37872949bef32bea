#include "daemon/method_table.h"

#include <functional>

#include "daemon/log/cv_log.h"
#include "daemon/request.h"
#include "daemon/response.h"
#include "wire/limits.h"
#include "wire/messages.h"

namespace corvane {

using plist::Ref;

namespace {

// Made at program start, because each response has them.
const Ref<plist::String> reply_key = plist::String::create(wire::reply_key);
const Ref<plist::String> no_selector = plist::String::create("");

void set_error(plist::MutableDictionary& response, const char* reason, const ErrorObject& error) {
  response.set(wire::error_object_key, wire::make_error_object(error.domain, error.code, error.user_info));
  set_response_error(reason, response, error.user_info->get(wire::error_description_key));
}

// Not with `create_response`, which ends the process when memory is out.
void encode_failure(const Ref<plist::String>& selector, plist::ByteChain& out) {
  out = plist::ByteChain();
  Ref<plist::MutableDictionary> failure = plist::MutableDictionary::create();
  failure->set(wire::request_key, selector);
  set_error(*failure, "response", CorvaneError::getError(CorvaneError::operation_failed));
  plist::encode_binary(*failure, out);
}

// A reply that no response can carry counts as none: the copy methods never answer an error.
void encode(plist::MutableDictionary& response, plist::ByteChain& out) {
  const Ref<plist::String> fault = plist::encode_binary(response, out);
  if (!fault && out.size() <= wire::response_limit) return;

  cv_log("encode", 0, "could not send a reply: %@", fault ? fault : plist::String::create("it is too long"));
  out = plist::ByteChain();
  response.remove(wire::reply_key);
  plist::encode_binary(response, out);
}

}  // namespace

bool MethodTable::deliver(ExportedObject& object, const Message& message, plist::ByteChain& response) const {
  if (message.kind != Message::raw_data) return false;
  ++counts_.answered;
  Ref<plist::String> selector = no_selector;
  int32_t error = 0;
  try {
    encode(*answer(object, message, selector, error), response);
  } catch (const std::bad_alloc&) {
    // The memory that the request took is free again by now.
    cv_log("deliver", 0, "out of memory");
    error = CorvaneError::operation_failed;
    encode_failure(selector, response);
  }
  if (error != 0) count_error(error);
  return true;
}

void MethodTable::count_error(int32_t code) const {
  ++(code == CorvaneError::unexpected_parameter ? counts_.bad_arguments : counts_.failures);
}

const MethodTable::Method* MethodTable::find(const plist::String* selector) const {
  if (selector == nullptr) return nullptr;
  for (const Method& method : methods_) {
    if (method.selector == selector->view()) return &method;
  }
  return nullptr;
}

Ref<plist::MutableDictionary> MethodTable::answer(ExportedObject& object, const Message& message,
                                                  Ref<plist::String>& selector, int32_t& error_code) const {
  const Ref<plist::Dictionary> request = copy_dict_from_port_data(&message);
  plist::String* asked = request ? wire::request_selector(*request) : nullptr;
  if (asked != nullptr) selector = asked;
  Ref<plist::MutableDictionary> response = create_response(selector);

  const Method* method = find(asked);
  if (method == nullptr) {
    const char* reason = request ? "no such request" : "unreadable request";
    error_code = CorvaneError::unexpected_parameter;
    set_error(*response, reason, CorvaneError::getError(error_code));
    return response;
  }
  const auto complete = [&](plist::Dictionary* reply, const ErrorObject* error) {
    if (reply != nullptr) response->set(reply_key, reply);
    if (error == nullptr) return;
    error_code = error->code;
    set_error(*response, selector->c_string(), *error);
  };
  // A completion block that holds only a reference allocates nothing.
  method->call(object, *request, std::cref(complete));
  return response;
}

}  // namespace corvane
