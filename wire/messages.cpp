#include "wire/messages.h"

namespace corvane::wire {

using plist::cast;
using plist::Ref;

namespace {

std::string text(const plist::Value* value) {
  const auto* string = cast<plist::String>(value);
  return string == nullptr ? std::string() : std::string(string->view());
}

bool read_error_object(const plist::Dictionary& error, Response& response) {
  const auto* code = cast<plist::Number>(error.get(error_code_key));
  if (code == nullptr || !code->is_integer()) return false;
  response.failed = true;
  response.domain = text(error.get(error_domain_key));
  response.code = code->int64();
  if (const auto* user_info = cast<plist::Dictionary>(error.get(error_user_info_key))) {
    response.description = text(user_info->get(error_description_key));
  }
  return true;
}

}  // namespace

Ref<plist::MutableDictionary> make_request(std::string_view selector) {
  Ref<plist::MutableDictionary> request = plist::MutableDictionary::create();
  request->set(request_key, plist::String::create(selector));
  return request;
}

plist::String* request_selector(const plist::Dictionary& request) {
  return cast<plist::String>(request.get(request_key));
}

Ref<plist::Dictionary> make_error_object(Ref<plist::String> domain, int32_t code,
                                         Ref<plist::Dictionary> user_info) {
  Ref<plist::MutableDictionary> error = plist::MutableDictionary::create(3);
  error->set(error_domain_key, std::move(domain));
  error->set(error_code_key, plist::Number::create_int32(code));
  error->set(error_user_info_key, std::move(user_info));
  return error;
}

bool read_response(const plist::Dictionary& dictionary, Response& response) {
  if (request_selector(dictionary) == nullptr) return false;
  plist::Value* reply = dictionary.get(reply_key);
  response.reply = cast<plist::Dictionary>(reply);
  if (reply != nullptr && !response.reply) return false;
  plist::Value* error = dictionary.get(error_object_key);
  if (error == nullptr) return true;
  const auto* fields = cast<plist::Dictionary>(error);
  return fields != nullptr && read_error_object(*fields, response);
}

Ref<plist::Dictionary> make_notification(const plist::String& name) {
  const Ref<plist::String> copy = plist::String::create(name.view());
  Ref<plist::MutableDictionary> notification = plist::MutableDictionary::create(2);
  notification->set(notification_key, copy);
  notification->set(object_key, copy);
  return notification;
}

Ref<plist::Dictionary> make_missed(int64_t count) {
  Ref<plist::MutableDictionary> missed = plist::MutableDictionary::create(1);
  missed->set(missed_key, plist::Number::create_int64(count));
  return missed;
}

bool read_notification(const plist::Dictionary& dictionary, Notification& notification) {
  const auto* missed = cast<plist::Number>(dictionary.get(missed_key));
  notification.name = text(dictionary.get(notification_key));
  notification.missed = missed != nullptr && missed->is_integer() ? missed->int64() : 0;
  return notification.missed >= 0 && notification.name.empty() == (notification.missed > 0);
}

}  // namespace corvane::wire
