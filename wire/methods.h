#pragma once

#include <string_view>

/// The names in requests and replies: services, the methods that each has, and the keys of their arguments and
/// replies. docs/wire-protocol.md says what each method does.
namespace corvane::wire {

/// The services' socket names.
inline constexpr std::string_view public_service = "com.norvane.corvaned";
inline constexpr std::string_view admin_service = "com.norvane.corvaned.admin";
inline constexpr std::string_view notification_service = "com.norvane.notifications";

/// Methods of the public service.
inline constexpr std::string_view copy_regulatory_images = "copyRegulatoryImagesWithCompletionBlock:";
inline constexpr std::string_view copy_version = "copyVersionWithCompletionBlock:";

/// Methods of the admin service.
inline constexpr std::string_view store_regulatory_images = "storeRegulatoryImages:withCompletionBlock:";
inline constexpr std::string_view copy_entitlements = "copyEntitlementsForPID:withCompletionBlock:";
inline constexpr std::string_view copy_status = "copyStatusWithCompletionBlock:";
inline constexpr std::string_view copy_device_type = "copyDeviceTypeWithProperties:withCompletionBlock:";
inline constexpr std::string_view copy_radio = "copyRadioWithCompletionBlock:";
inline constexpr std::string_view copy_carrier_bundle = "copyCarrierBundleWithCompletionBlock:";
inline constexpr std::string_view copy_ark_value = "copyArkValueForDomain:key:withCompletionBlock:";
inline constexpr std::string_view set_ark_value = "setArkValue:forDomain:key:withCompletionBlock:";
inline constexpr std::string_view remove_ark_value = "removeArkValueForDomain:key:withCompletionBlock:";
inline constexpr std::string_view set_ark_attributes = "setArkAttributes:forDomain:key:withCompletionBlock:";
inline constexpr std::string_view copy_ark_entries = "copyArkEntriesForDomain:after:withCompletionBlock:";
inline constexpr std::string_view restore_ark_entries = "restoreArkEntries:withCompletionBlock:";
inline constexpr std::string_view watch_ark_value = "watchArkValueForDomain:key:withCompletionBlock:";

/// Arguments.
inline constexpr std::string_view images_key = "Images";
inline constexpr std::string_view pid_key = "PID";
inline constexpr std::string_view after_key = "After";

/// Arguments and replies. A key or a domain that is missing is a null one.
inline constexpr std::string_view properties_key = "Properties";
inline constexpr std::string_view domain_key = "Domain";
inline constexpr std::string_view key_key = "Key";
inline constexpr std::string_view value_key = "Value";
inline constexpr std::string_view attributes_key = "Attributes";
inline constexpr std::string_view entries_key = "Entries";

/// Replies.
inline constexpr std::string_view version_key = "Version";
inline constexpr std::string_view device_type_key = "DeviceType";
inline constexpr std::string_view errors_key = "Errors";
inline constexpr std::string_view carrier_bundle_key = "CarrierBundle";
inline constexpr std::string_view next_key = "Next";
inline constexpr std::string_view changes_key = "Changes";

}  // namespace corvane::wire
