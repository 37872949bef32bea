#include "client/methods.h"

#include <string_view>
#include <utility>

namespace corvane::client {

using plist::Ref;

namespace {

Answer ask(Connection& connection, std::string_view selector) {
  return connection.ask(*wire::make_request(selector));
}

void set_text(plist::MutableDictionary& request, std::string_view name, const std::optional<std::string>& text) {
  if (text) request.set(name, plist::String::create(*text));
}

Ref<plist::MutableDictionary> make_ark_request(std::string_view selector, const ArkKey& key) {
  Ref<plist::MutableDictionary> request = wire::make_request(selector);
  set_text(*request, wire::domain_key, key.domain);
  set_text(*request, wire::key_key, key.key);
  return request;
}

}  // namespace

Answer copy_regulatory_images(Connection& connection) { return ask(connection, wire::copy_regulatory_images); }

Answer copy_version(Connection& connection) { return ask(connection, wire::copy_version); }

Answer store_regulatory_images(Connection& admin_connection, Ref<plist::Value> images) {
  Ref<plist::MutableDictionary> request = wire::make_request(wire::store_regulatory_images);
  request->set(wire::images_key, std::move(images));
  return admin_connection.ask(*request);
}

Answer copy_entitlements(Connection& admin_connection, int32_t pid) {
  Ref<plist::MutableDictionary> request = wire::make_request(wire::copy_entitlements);
  request->set(wire::pid_key, plist::Number::create_int32(pid));
  return admin_connection.ask(*request);
}

Answer copy_status(Connection& admin_connection) { return ask(admin_connection, wire::copy_status); }

Answer copy_device_type(Connection& admin_connection, const std::vector<std::string>& properties) {
  Ref<plist::MutableArray> names = plist::MutableArray::create();
  for (const std::string& name : properties) names->append(plist::String::create(name));
  Ref<plist::MutableDictionary> request = wire::make_request(wire::copy_device_type);
  request->set(wire::properties_key, std::move(names));
  return admin_connection.ask(*request);
}

Answer copy_radio(Connection& admin_connection) { return ask(admin_connection, wire::copy_radio); }

Answer copy_carrier_bundle(Connection& admin_connection) {
  return ask(admin_connection, wire::copy_carrier_bundle);
}

Answer copy_ark_value(Connection& admin_connection, const ArkKey& key) {
  return admin_connection.ask(*make_ark_request(wire::copy_ark_value, key));
}

Answer set_ark_value(Connection& admin_connection, const ArkKey& key, Ref<plist::Value> value) {
  const Ref<plist::MutableDictionary> request = make_ark_request(wire::set_ark_value, key);
  request->set(wire::value_key, std::move(value));
  return admin_connection.ask(*request);
}

Answer remove_ark_value(Connection& admin_connection, const ArkKey& key) {
  return admin_connection.ask(*make_ark_request(wire::remove_ark_value, key));
}

Answer set_ark_attributes(Connection& admin_connection, const ArkKey& key,
                          const std::vector<unsigned>& attributes) {
  Ref<plist::MutableArray> indexes = plist::MutableArray::create();
  for (const unsigned index : attributes) indexes->append(plist::Number::create_int64(index));
  const Ref<plist::MutableDictionary> request = make_ark_request(wire::set_ark_attributes, key);
  request->set(wire::attributes_key, std::move(indexes));
  return admin_connection.ask(*request);
}

Answer copy_ark_entries(Connection& admin_connection, const std::optional<std::string>& domain,
                        const std::optional<std::string>& after) {
  const Ref<plist::MutableDictionary> request = wire::make_request(wire::copy_ark_entries);
  set_text(*request, wire::domain_key, domain);
  set_text(*request, wire::after_key, after);
  return admin_connection.ask(*request);
}

Answer restore_ark_entries(Connection& admin_connection, Ref<plist::Array> entries) {
  const Ref<plist::MutableDictionary> request = wire::make_request(wire::restore_ark_entries);
  request->set(wire::entries_key, std::move(entries));
  return admin_connection.ask(*request);
}

Answer watch_ark_value(Connection& admin_connection, const ArkKey& key) {
  return admin_connection.ask(*make_ark_request(wire::watch_ark_value, key));
}

}  // namespace corvane::client
