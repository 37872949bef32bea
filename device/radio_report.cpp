#include "device/radio_report.h"

#include <string>

#include "device/device_type.h"
#include "device/telephony.h"
#include "platform/telephony.h"

namespace corvane {

using plist::MutableDictionary;
using plist::Ref;
using plist::String;
using Query = TelvoServerConnection::Query;

namespace {

struct NamedQuery {
  Query query;
  std::string_view name;
};

constexpr NamedQuery queries[] = {
    {Query::sim_identity, "SIMIdentity"},
    {Query::mobile_subscriber_identity, "SubscriberIdentity"},
    {Query::firmware_version, "FirmwareVersion"},
    {Query::bootloader_version, "BootloaderVersion"},
    {Query::group_identifier_1, "GroupIdentifier1"},
    {Query::group_identifier_2, "GroupIdentifier2"},
    {Query::firmware_security_info, "FirmwareSecurityInfo"},
};

// The keys that the look-up for a baseband of class 1 and below stores.
constexpr std::string_view stored_keys[] = {
    "PreviousSIMStatus", "IntegratedCircuitCardIdentity", "InternationalMobileSubscriberIdentity", "SIMGID1",
    "SIMGID2",           "BasebandBootloaderVersion",
};

void set_if_any(MutableDictionary& dictionary, std::string_view key, Ref<plist::Value> value) {
  if (value) dictionary.set(key, std::move(value));
}

Ref<plist::Dictionary> ask(TelvoServerConnection& connection, Query query) {
  Ref<MutableDictionary> answer = MutableDictionary::create();
  Ref<plist::Value> value;
  const TelvoStatus status = connection.copy(query, value);
  if (status.failed()) {
    const std::string error = std::to_string(status.domain) + '.' + std::to_string(status.error);
    answer->set("Error", String::create(error));
  } else {
    set_if_any(*answer, "Value", std::move(value));
  }
  return answer;
}

// Null where there is no connection.
Ref<plist::Dictionary> ask_all() {
  const auto connection = TelvoServerConnectionCreate(_telvoserver_callback);
  if (connection == nullptr) return nullptr;
  Ref<MutableDictionary> answers = MutableDictionary::create();
  for (const NamedQuery& named : queries) answers->set(named.name, ask(*connection, named.query));
  return answers;
}

Ref<plist::Dictionary> describe_status(const TelvoRadioStatus& status) {
  Ref<MutableDictionary> record = MutableDictionary::create();
  set_if_any(*record, "Readiness", status.readiness);
  set_if_any(*record, "Properties", status.properties);
  return record;
}

void add_stored(data_ark* ark, const String& key, MutableDictionary& stored) {
  set_if_any(stored, key.view(), data_ark_copy(ark, nullptr, &key));
}

Ref<plist::Dictionary> copy_stored(data_ark* ark, const plist::Dictionary* properties) {
  Ref<MutableDictionary> stored = MutableDictionary::create();
  if (ark == nullptr) return stored;
  if (!baseband_class_above_one()) {
    for (const std::string_view key : stored_keys) add_stored(ark, *String::create(key), *stored);
  } else if (properties != nullptr) {
    for (const plist::Dictionary::Entry& entry : properties->entries()) add_stored(ark, *entry.key, *stored);
  }
  return stored;
}

}  // namespace

Ref<plist::Dictionary> copy_radio_report(data_ark* ark) {
  const TelvoRadioStatus status = TelvoCopyRadioStatus();
  Ref<MutableDictionary> report = MutableDictionary::create();
  report->set("Lookup", String::create(baseband_class_above_one() ? "new" : "old"));
  set_if_any(*report, "SIMStatus", TelvoSIMSupportGetSIMStatus());
  set_if_any(*report, "PhoneNumber", copy_phonenumber());
  set_if_any(*report, "Queries", ask_all());
  set_if_any(*report, "FirmwareSecurityInfo", copyBasebandStatus());
  set_if_any(*report, "BasebandStatus", copy_baseband_status_answer());
  report->set("RadioStatus", describe_status(status));
  report->set("Ark", copy_stored(ark, status.properties.get()));
  return report;
}

}  // namespace corvane
