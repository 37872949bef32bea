#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "client/client.h"

/// The methods of the daemon's services. Each is one `Connection::ask`, and docs/wire-protocol.md says what it
/// answers.
namespace corvane::client {

/// The public service.
Answer copy_regulatory_images(Connection& connection);
Answer copy_version(Connection& connection);

/// The admin service.
Answer store_regulatory_images(Connection& admin_connection, plist::Ref<plist::Value> images);
Answer copy_entitlements(Connection& admin_connection, int32_t pid);
Answer copy_status(Connection& admin_connection);
Answer copy_device_type(Connection& admin_connection, const std::vector<std::string>& properties);
Answer copy_radio(Connection& admin_connection);
Answer copy_carrier_bundle(Connection& admin_connection);

/// A domain and a key of the data ark, each of which may be missing. Without a key it is the domain's own entry.
struct ArkKey {
  std::optional<std::string> domain;
  std::optional<std::string> key;
};

Answer copy_ark_value(Connection& admin_connection, const ArkKey& key);
Answer set_ark_value(Connection& admin_connection, const ArkKey& key, plist::Ref<plist::Value> value);
Answer remove_ark_value(Connection& admin_connection, const ArkKey& key);
Answer set_ark_attributes(Connection& admin_connection, const ArkKey& key,
                          const std::vector<unsigned>& attributes);
/// One page: the entries behind `after`, or from the first one on.
Answer copy_ark_entries(Connection& admin_connection, const std::optional<std::string>& domain,
                        const std::optional<std::string>& after);
Answer restore_ark_entries(Connection& admin_connection, plist::Ref<plist::Array> entries);
Answer watch_ark_value(Connection& admin_connection, const ArkKey& key);

}  // namespace corvane::client
