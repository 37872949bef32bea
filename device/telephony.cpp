#include "device/telephony.h"

#include "daemon/log/cv_log.h"
#include "device/device_type.h"
#include "platform/device_properties.h"
#include "platform/notifications.h"
#include "platform/platform.h"
#include "platform/run_loop.h"
#include "state/values.h"

namespace corvane {

using plist::Ref;
using plist::String;
using Query = TelvoServerConnection::Query;

namespace {

constexpr std::string_view phone_number_changed = "com.norvane.mobile.keelhold.phone_number_changed";

// A phone number that does not fit into this many bytes, with its terminator, is logged. It is returned all the
// same, and copied nowhere.
constexpr size_t phone_number_capacity = 1024;

constexpr std::string_view withheld_keys[] = {
    "InternationalMobileEquipmentIdentity",
    "MobileEquipmentIdentifier",
    "IntegratedCircuitCardIdentity",
};

RadioChangeHook radio_change_hook = nullptr;
RadioCounts counts;  // request queue

// ---- baseband class 1 and below -----------------------------------------------------------------------

constexpr char old_lookup[] = "lookup_baseband_info_old";

bool refresh_sim_status(data_ark* ark) {
  const Ref<String> key = String::create("PreviousSIMStatus");
  const Ref<plist::Value> stored = data_ark_copy(ark, nullptr, key.get());
  const Ref<plist::Value> current = TelvoSIMSupportGetSIMStatus();
  if (current && as_string(current.get()) == nullptr) return false;
  if (plist::equal(stored.get(), current.get())) return false;
  if (!current) {
    cv_log(old_lookup, 0, "SIM status has gone away?");
    data_ark_remove(ark, nullptr, key.get());
    return true;
  }
  cv_log(old_lookup, 0, "%s", stored ? "The SIM status has changed" : "We now have SIM status");
  data_ark_set(ark, nullptr, key.get(), current.get());
  return true;
}

// Whether the query succeeded, with or without a value; a failed one is logged under its own name.
bool ask(const char* function, TelvoServerConnection& connection, Query query, const char* name,
         Ref<plist::Value>& value) {
  const TelvoStatus status = connection.copy(query, value);
  if (!status.failed()) return true;
  value = nullptr;
  cv_log(function, 0, "%s() error: %ld.%ld", name, static_cast<long>(status.domain),
         static_cast<long>(status.error));
  return false;
}

bool refresh_identity(data_ark* ark, const char* ark_key, const char* what, plist::Value* value) {
  const String* identity = as_string(value);
  if (identity == nullptr) return false;
  const Ref<String> key = String::create(ark_key);
  const Ref<plist::Value> stored = data_ark_copy(ark, nullptr, key.get());
  if (identity->view().empty()) {
    if (!data_ark_exists(ark, nullptr, key.get())) return false;
    cv_log(old_lookup, 0, "Removing %s from the data ark", what);
    data_ark_remove(ark, nullptr, key.get());
    return true;
  }
  if (plist::equal(stored.get(), identity)) return false;
  if (stored) {
    cv_log(old_lookup, 0, "The %s has changed", what);
  } else {
    cv_log(old_lookup, 0, "Inserting %s into the data ark", what);
  }
  data_ark_set(ark, nullptr, key.get(), value);
  return true;
}

void store_transient(data_ark* ark, const String& key, plist::Value* value) {
  // Without the attribute the value would get into the file, and stay there.
  if (data_ark_set_attribute(ark, nullptr, &key, ARK_NOT_STORED) != 0) return;
  data_ark_set(ark, nullptr, &key, value);
}

void store_group_identifier(data_ark* ark, const char* key, plist::Value* value) {
  if (value != nullptr) store_transient(ark, *String::create(key), value);
}

void store_bootloader_version(data_ark* ark, plist::Value* value) {
  const String* version = as_string(value);
  const Ref<String> key = String::create("BasebandBootloaderVersion");
  if (version == nullptr || version->view().empty() || data_ark_exists(ark, nullptr, key.get())) return;
  cv_log(old_lookup, 0, "Inserting baseband bootloader version into the data ark");
  store_transient(ark, *key, value);
}

bool lookup_baseband_info_old(data_ark* ark) {
  bool changed = refresh_sim_status(ark);
  post_phone_number_changed();

  const auto connection = TelvoServerConnectionCreate(_telvoserver_callback);
  if (connection == nullptr) {
    cv_log(old_lookup, 0, "Could not connect to Telvo");
    return changed;
  }
  Ref<plist::Value> sim, subscriber, firmware, bootloader, group_1, group_2;
  const auto copy = [&](Query query, const char* name, Ref<plist::Value>& value) {
    ask(old_lookup, *connection, query, name, value);
  };
  copy(Query::sim_identity, "_TelvoServerConnectionCopySIMIdentity", sim);
  copy(Query::mobile_subscriber_identity, "_TelvoServerConnectionCopyMobileSubscriberIdentity", subscriber);
  copy(Query::firmware_version, "_TelvoServerConnectionCopyFirmwareVersion", firmware);
  copy(Query::bootloader_version, "_TelvoServerConnectionCopyBootloaderVersion", bootloader);
  copy(Query::group_identifier_1, "_TelvoServerConnectionCopyGid1", group_1);
  copy(Query::group_identifier_2, "_TelvoServerConnectionCopyGid2", group_2);

  changed |= refresh_identity(ark, "IntegratedCircuitCardIdentity", "SIM identity", sim.get());
  changed |=
      refresh_identity(ark, "InternationalMobileSubscriberIdentity", "subscriber identity", subscriber.get());
  store_group_identifier(ark, "SIMGID1", group_1.get());
  store_group_identifier(ark, "SIMGID2", group_2.get());
  store_bootloader_version(ark, bootloader.get());
  return changed;
}

// ---- baseband class above 1 ---------------------------------------------------------------------------

bool is_withheld(std::string_view key) {
  for (const std::string_view withheld : withheld_keys) {
    if (key == withheld) return true;
  }
  return false;
}

void store_radio_properties(data_ark* ark, const plist::Dictionary& properties) {
  dict_apply_block(properties, [ark](String* key, plist::Value* value) {
    if (is_withheld(key->view())) return;
    store_transient(ark, *key, value);
    cv_log("__lookup_baseband_info_new_block_invoke", 0, "got %@ = %@ from telvo", key, value);
  });
}

bool lookup_baseband_info_new(data_ark* ark) {
  const TelvoRadioStatus status = TelvoCopyRadioStatus();
  post_phone_number_changed();
  const String* readiness = as_string(status.readiness.get());
  if (!status.readiness) {
    cv_log("lookup_baseband_info_new", 0, "radio not responding");
  } else if (readiness != nullptr && readiness->view() == telvo_not_ready) {
    cv_log("lookup_baseband_info_new", 0, "radio not ready: %@", readiness);
  } else if (status.properties) {
    store_radio_properties(ark, *status.properties);
  }
  return true;
}

void handle_sim_notification(data_ark* ark, const String* name) {
  ++counts.events;
  if (!baseband_class_above_one() && name != nullptr && name->view() == telvo_sim_inserted)
    post_phone_number_changed();
  const auto call_hook = [ark] {
    if (radio_change_hook != nullptr) radio_change_hook(ark);
  };
  try {
    if (!lookup_baseband_info(ark)) return;
  } catch (const std::bad_alloc&) {
    call_hook();  // The next look-up would take what this one has set for known.
    throw;
  }
  ++counts.changes;
  call_hook();
}

}  // namespace

void post_system_notification(std::string_view name) { platform().notifications().post(*String::create(name)); }

void post_phone_number_changed() { post_system_notification(phone_number_changed); }

bool lookup_baseband_info(data_ark* ark) {
  return baseband_class_above_one() ? lookup_baseband_info_new(ark) : lookup_baseband_info_old(ark);
}

void registerForTelvoCallNotifications(data_ark* observer) {
  TelephonyCentre* centre = TelvoTelephonyCenterGetDefault();
  if (centre == nullptr) {
    cv_log("registerForTelvoCallNotifications", 0, "Could not get the Telvo phone center");
    return;
  }
  if (baseband_class_above_one()) return;
  for (const std::string_view name : {telvo_sim_inserted, telvo_sim_status_changed, telvo_phone_number_changed}) {
    TelvoTelephonyCenterAddObserver(*centre, observer, sim_notification_callback, name);
  }
  cv_log("registerForTelvoCallNotifications", 0, "now listening for Telvo notifications");
}

void sim_notification_callback(TelephonyCentre*, void* observer, const String* name, const plist::Value*,
                               const plist::Dictionary*) {
  const Ref<String> kept_name(const_cast<String*>(name));
  platform().request_queue().submit(
      [ark = static_cast<data_ark*>(observer), kept_name] { handle_sim_notification(ark, kept_name.get()); });
}

void set_radio_change_hook(RadioChangeHook hook) { radio_change_hook = hook; }

RadioCounts radio_counts() { return counts; }

Ref<plist::MutableDictionary> copyBasebandStatus() {
  constexpr char function[] = "copyBasebandStatus";
  const auto connection = TelvoServerConnectionCreate(_telvoserver_callback);
  if (connection == nullptr) {
    cv_log(function, 0, "Can't connect to Telvo");
    return nullptr;
  }
  Ref<plist::MutableDictionary> status = create_dict();
  Ref<plist::Value> information;
  if (!ask(function, *connection, Query::firmware_security_info, "_TelvoServerConnectionCopyFirmwareSecurityInfo",
           information)) {
    return status;
  }
  if (!information) cv_log(function, 0, "Telvo returned NULL FirmwareSecurityInfo");
  if (const plist::Dictionary* entries = as_dictionary(information.get())) {
    dict_apply_block(*entries, [&status](String* key, plist::Value* value) {
      status->set(Ref<String>(key), value);
      cv_log("__copyBasebandStatus_block_invoke", 0, "got %@ = %@ from telvo", key, value);
    });
  }
  return status;
}

Ref<plist::Value> copy_baseband_status_answer() {
  return VexaCopyAnswer(String::create("BasebandStatus").get(), nullptr);
}

Ref<String> copy_phonenumber() {
  constexpr char function[] = "copy_phonenumber";
  const Ref<plist::Value> value = TelvoSettingCopyMyPhoneNumber();
  if (!value) {
    cv_log(function, 0, "TelvoSettingCopyMyPhoneNumber() returned NULL");
    return nullptr;
  }
  String* number = as_string(value.get());
  if (number == nullptr) {
    cv_log(function, 0, "TelvoSettingCopyMyPhoneNumber() returned non-string: %@, but we're returning NULL anyway",
           value);
    return nullptr;
  }
  copy_locale();
  if (number->view().size() >= phone_number_capacity) {
    cv_log(function, 0, "Could not convert phone number to string");
  }
  if (!number->view().empty()) return number;
  cv_log(function, 0, "TelvoSettingCopyMyPhoneNumber() returned an empty phone number - returning NULL");
  return nullptr;
}

Ref<String> copy_locale() {
  cv_log("copy_locale", 0, "Could not lookup locale preference");
  return nullptr;
}

void _telvoserver_callback() { cv_log("_telvoserver_callback", 0, "_telvoserver_callback?"); }

}  // namespace corvane
