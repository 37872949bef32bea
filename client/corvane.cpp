// Connections and subscriptions of corvane.h, over the C++ client.

#include "client/corvane.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <unistd.h>
#include <utility>
#include <vector>

#include "client/boundary.h"
#include "client/client.h"
#include "client/methods.h"
#include "client/subscription.h"
#include "plist/printable.h"
#include "plist/unicode.h"

using corvane::plist::cast;
using corvane::plist::Ref;
namespace client = corvane::client;
namespace plist = corvane::plist;
namespace wire = corvane::wire;

struct corvane_connection {
  client::Connection& connection();

  const std::string_view service;
  const std::string root;
  const std::chrono::milliseconds timeout;
  pid_t owner = getpid();
  std::optional<client::Connection> current{};
};

// Two processes that use one socket would read each other's answers.
client::Connection& corvane_connection::connection() {
  const pid_t process = getpid();
  if (std::exchange(owner, process) != process) current.reset();
  if (!current) current.emplace(service, root, timeout);
  return *current;
}

struct corvane_subscription {
  explicit corvane_subscription(const std::string& root) : subscription(root) {}

  const pid_t owner = getpid();
  client::Subscription subscription;
  wire::Notification last;
  /// The failure after which no more notifications come.
  std::optional<std::pair<corvane_status, std::string>> end;
};

namespace corvane::client {

namespace {

corvane_status fill(corvane_error* error, corvane_status status, std::string_view message, int64_t code) {
  if (error == nullptr) return status;
  size_t length = std::min(message.size(), sizeof error->message - 1);
  // Not within a character.
  while (length < message.size() && (message[length] & 0xc0) == 0x80) --length;
  *error = {status, code, {}};
  std::memcpy(error->message, message.data(), length);
  return status;
}

corvane_status bad_request(corvane_error* error, const char* message) {
  return fill(error, CORVANE_BAD_REQUEST, message, 0);
}

corvane_status status_of(Outcome outcome) {
  switch (outcome) {
    case Outcome::answered:
      return CORVANE_OK;
    case Outcome::refused:
      return CORVANE_REFUSED;
    case Outcome::not_permitted:
      return CORVANE_NOT_PERMITTED;
    case Outcome::closed:
      return CORVANE_CLOSED;
    case Outcome::timed_out:
      return CORVANE_TIMED_OUT;
    case Outcome::bad_answer:
    case Outcome::too_long:
      return CORVANE_BAD_ANSWER;
    case Outcome::bad_request:
      return CORVANE_BAD_REQUEST;
  }
  return CORVANE_BAD_ANSWER;
}

corvane_status pass_on(const Answer& answer, corvane_value** reply, corvane_error* error) {
  if (answer.outcome != Outcome::answered) return report(error, status_of(answer.outcome), answer.detail);
  const wire::Response& response = answer.response;
  if (response.failed) {
    const std::string& reason = response.description;
    return report(error, CORVANE_DAEMON_ERROR, reason.empty() ? "the daemon gave no reason" : reason,
                  response.code);
  }
  if (reply != nullptr) *reply = hand_over(response.reply);
  return report_success(error);
}

// Gives what `ask(connection)` answers to the caller of the C interface.
template <class Ask>
corvane_status call(corvane_connection* connection, corvane_value** reply, corvane_error* error, Ask ask) {
  if (reply != nullptr) *reply = nullptr;
  if (connection == nullptr) return bad_request(error, "the connection is NULL");
  return with_error(error, [&] { return pass_on(ask(connection->connection()), reply, error); });
}

bool is_text(const char* text) { return text != nullptr && plist::unicode::is_utf8(text); }

std::optional<std::string> optional_text(const char* text) {
  return text == nullptr ? std::nullopt : std::optional<std::string>(text);
}

Answer refused(const char* detail) { return {Outcome::bad_request, detail, {}}; }

// The same for a method that takes a domain and a key of the data ark, each of which may be NULL.
template <class Ask>
corvane_status call_ark(corvane_connection* connection, const char* domain, const char* key, corvane_value** reply,
                        corvane_error* error, Ask ask) {
  return call(connection, reply, error, [&](Connection& current) {
    if (domain != nullptr && !is_text(domain)) return refused("the domain is not UTF-8");
    if (key != nullptr && !is_text(key)) return refused("the key is not UTF-8");
    return ask(current, ArkKey{optional_text(domain), optional_text(key)});
  });
}

// The same for a method that needs a key.
template <class Ask>
corvane_status call_with_key(corvane_connection* connection, const char* domain, const char* key,
                             corvane_value** reply, corvane_error* error, Ask ask) {
  return call_ark(connection, domain, key, reply, error, [&](Connection& current, const ArkKey& ark_key) {
    return ark_key.key ? ask(current, ark_key) : refused("the key is NULL");
  });
}

Ref<plist::Value> shared(const corvane_value* value) { return const_cast<plist::Value*>(from_c(value)); }

Answer ask(Connection& connection, const char* selector, const corvane_value* arguments) {
  if (!is_text(selector)) return refused("the selector is no text");
  const auto* dictionary = cast<plist::Dictionary>(from_c(arguments));
  if (arguments != nullptr && dictionary == nullptr) return refused("the arguments are no dictionary");
  const Ref<plist::MutableDictionary> request = wire::make_request(selector);
  if (dictionary != nullptr) {
    for (const auto& [key, value] : dictionary->entries()) request->add(key->view(), value);
  }
  return connection.ask(*request);
}

corvane_status end(corvane_subscription& subscription, corvane_status status, const std::string& detail,
                   corvane_error* error) {
  subscription.end.emplace(status, detail);
  return report(error, status, detail);
}

corvane_status read_next(corvane_subscription& open, int timeout, corvane_notification* notification,
                         corvane_error* error) {
  const auto read = [&] {
    std::string detail;
    const auto limit = timeout < 0 ? Subscription::no_timeout : std::chrono::milliseconds(timeout);
    const Outcome outcome = open.subscription.next(open.last, detail, limit);
    if (outcome == Outcome::timed_out) return report(error, CORVANE_TIMED_OUT, detail);
    if (outcome != Outcome::answered) return end(open, status_of(outcome), detail, error);
    if (notification != nullptr) *notification = {open.last.name.c_str(), open.last.name.size(), open.last.missed};
    return report_success(error);
  };
  // A part of a notification may be lost, so that what follows has no meaning.
  return without_exceptions(read, [&] {
    open.end.emplace(CORVANE_NO_MEMORY, "out of memory");
    return report_no_memory(error);
  });
}

std::string root_of(const char* root) { return root == nullptr ? Connection::root_from_environment() : root; }

}  // namespace

corvane_status report(corvane_error* error, corvane_status status, std::string_view message, int64_t code) {
  return fill(error, status, plist::printable(message), code);
}

corvane_status report_no_memory(corvane_error* error) {
  return fill(error, CORVANE_NO_MEMORY, "out of memory", 0);
}

corvane_status report_success(corvane_error* error) { return fill(error, CORVANE_OK, "", 0); }

}  // namespace corvane::client

// ---- asking -------------------------------------------------------------------------------------------

corvane_status corvane_connection_open(corvane_service service, const char* root, int timeout,
                                       corvane_connection** connection, corvane_error* error) {
  if (connection == nullptr) return client::bad_request(error, "there is no place for the connection");
  *connection = nullptr;
  if (service != CORVANE_PUBLIC && service != CORVANE_ADMIN) return client::bad_request(error, "no such service");
  if (timeout < 0) return client::bad_request(error, "the timeout is negative");
  return client::with_error(error, [&] {
    const std::string_view name = service == CORVANE_ADMIN ? wire::admin_service : wire::public_service;
    *connection = new corvane_connection{name, client::root_of(root), std::chrono::milliseconds(timeout)};
    return client::report_success(error);
  });
}

void corvane_connection_close(corvane_connection* connection) { delete connection; }

corvane_status corvane_ask(corvane_connection* connection, const char* selector, const corvane_value* arguments,
                           corvane_value** reply, corvane_error* error) {
  return client::call(connection, reply, error,
                      [&](client::Connection& current) { return client::ask(current, selector, arguments); });
}

corvane_status corvane_get_version(corvane_connection* connection, corvane_value** reply, corvane_error* error) {
  return client::call(connection, reply, error, client::copy_version);
}

corvane_status corvane_get_images(corvane_connection* connection, corvane_value** reply, corvane_error* error) {
  return client::call(connection, reply, error, client::copy_regulatory_images);
}

corvane_status corvane_store_images(corvane_connection* connection, const corvane_value* images,
                                    corvane_error* error) {
  return client::call(connection, nullptr, error, [&](client::Connection& current) {
    if (images == nullptr) return client::refused("the images are NULL");
    return client::store_regulatory_images(current, client::shared(images));
  });
}

corvane_status corvane_get_entitlements(corvane_connection* connection, int32_t pid, corvane_value** reply,
                                        corvane_error* error) {
  return client::call(connection, reply, error,
                      [&](client::Connection& current) { return client::copy_entitlements(current, pid); });
}

corvane_status corvane_get_status(corvane_connection* connection, corvane_value** reply, corvane_error* error) {
  return client::call(connection, reply, error, client::copy_status);
}

corvane_status corvane_get_device(corvane_connection* connection, const char* const* properties, size_t count,
                                  corvane_value** reply, corvane_error* error) {
  return client::call(connection, reply, error, [&](client::Connection& current) {
    if (properties == nullptr && count > 0) return client::refused("the properties are NULL");
    std::vector<std::string> names;
    for (size_t i = 0; i < count; ++i) {
      if (!client::is_text(properties[i])) return client::refused("the name of a property is no text");
      names.emplace_back(properties[i]);
    }
    return client::copy_device_type(current, names);
  });
}

corvane_status corvane_get_radio(corvane_connection* connection, corvane_value** reply, corvane_error* error) {
  return client::call(connection, reply, error, client::copy_radio);
}

corvane_status corvane_get_carrier(corvane_connection* connection, corvane_value** reply, corvane_error* error) {
  return client::call(connection, reply, error, client::copy_carrier_bundle);
}

// ---- the data ark -------------------------------------------------------------------------------------

corvane_status corvane_ark_get(corvane_connection* connection, const char* domain, const char* key,
                               corvane_value** reply, corvane_error* error) {
  return client::call_with_key(connection, domain, key, reply, error, client::copy_ark_value);
}

corvane_status corvane_ark_set(corvane_connection* connection, const char* domain, const char* key,
                               const corvane_value* value, corvane_value** reply, corvane_error* error) {
  return client::call_with_key(connection, domain, key, reply, error,
                               [&](client::Connection& current, const client::ArkKey& ark_key) {
                                 if (value == nullptr) return client::refused("the value is NULL");
                                 return client::set_ark_value(current, ark_key, client::shared(value));
                               });
}

corvane_status corvane_ark_remove(corvane_connection* connection, const char* domain, const char* key,
                                  corvane_value** reply, corvane_error* error) {
  return client::call_with_key(connection, domain, key, reply, error, client::remove_ark_value);
}

corvane_status corvane_ark_list(corvane_connection* connection, const char* domain, const char* after,
                                corvane_value** reply, corvane_error* error) {
  return client::call_ark(connection, domain, nullptr, reply, error,
                          [&](client::Connection& current, const client::ArkKey& start) {
                            if (after != nullptr && !client::is_text(after))
                              return client::refused("`after` is not UTF-8");
                            return client::copy_ark_entries(current, start.domain, client::optional_text(after));
                          });
}

corvane_status corvane_ark_restore(corvane_connection* connection, const corvane_value* entries,
                                   corvane_error* error) {
  return client::call(connection, nullptr, error, [&](client::Connection& current) {
    const Ref<plist::Array> array = cast<plist::Array>(client::shared(entries).get());
    return array ? client::restore_ark_entries(current, array) : client::refused("the entries are no array");
  });
}

corvane_status corvane_ark_set_attributes(corvane_connection* connection, const char* domain, const char* key,
                                          const unsigned* attributes, size_t count, corvane_value** reply,
                                          corvane_error* error) {
  return client::call_ark(connection, domain, key, reply, error,
                          [&](client::Connection& current, const client::ArkKey& ark_key) {
                            if (attributes == nullptr && count > 0)
                              return client::refused("the attributes are NULL");
                            return client::set_ark_attributes(current, ark_key, {attributes, attributes + count});
                          });
}

corvane_status corvane_ark_watch(corvane_connection* connection, const char* domain, const char* key,
                                 corvane_value** reply, corvane_error* error) {
  return client::call_with_key(connection, domain, key, reply, error, client::watch_ark_value);
}

// ---- notifications ------------------------------------------------------------------------------------

corvane_status corvane_subscription_open(const char* root, corvane_subscription** subscription,
                                         corvane_error* error) {
  if (subscription == nullptr) return client::bad_request(error, "there is no place for the subscription");
  *subscription = nullptr;
  return client::with_error(error, [&] {
    auto opened = std::make_unique<corvane_subscription>(client::root_of(root));
    std::string detail;
    const client::Outcome outcome = opened->subscription.open(detail);
    if (outcome != client::Outcome::answered) return client::report(error, client::status_of(outcome), detail);
    *subscription = opened.release();
    return client::report_success(error);
  });
}

void corvane_subscription_close(corvane_subscription* subscription) { delete subscription; }

int corvane_subscription_descriptor(const corvane_subscription* subscription) {
  return subscription == nullptr ? -1 : subscription->subscription.descriptor();
}

corvane_status corvane_subscription_next(corvane_subscription* subscription, int timeout,
                                         corvane_notification* notification, corvane_error* error) {
  if (subscription == nullptr) return client::bad_request(error, "the subscription is NULL");
  if (subscription->owner != getpid()) {
    return client::bad_request(error, "the subscription belongs to another process");
  }
  if (!subscription->end) return client::read_next(*subscription, timeout, notification, error);
  return client::with_error(
      error, [&] { return client::report(error, subscription->end->first, subscription->end->second); });
}
