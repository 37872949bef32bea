#include "platform/linux/modem_manager.h"

#include <initializer_list>
#include <utility>

#include "platform/linux/bus_properties.h"

namespace corvane {

namespace {

constexpr char modem_interface[] = "org.freedesktop.ModemManager1.Modem";
constexpr char gsm_interface[] = "org.freedesktop.ModemManager1.Modem.Modem3gpp";
constexpr char cdma_interface[] = "org.freedesktop.ModemManager1.Modem.ModemCdma";
constexpr char sim_interface[] = "org.freedesktop.ModemManager1.Sim";

// MMModemState
constexpr int64_t state_failed = -1, state_initializing = 1;
// MMModemStateFailedReason
constexpr int64_t reason_sim_missing = 2, reason_sim_error = 3, reason_esim_without_profiles = 5;
// MMModemLock
constexpr int64_t lock_none = 1, lock_pin = 2, lock_pin_2 = 3, lock_puk = 4, lock_puk_2 = 5;

// The object path that stands for no object.
constexpr std::string_view no_object = "/";

// Empty where the service does not say.
std::string_view status_of(const BusProperties& modem, bool has_card) {
  const int64_t state = modem.number("State").value_or(0);
  const int64_t reason = modem.number("StateFailedReason").value_or(0);
  const int64_t lock = modem.number("UnlockRequired").value_or(0);
  if (state == state_failed) {
    if (reason == reason_sim_error || reason == reason_esim_without_profiles) return sim_status::error;
    return reason == reason_sim_missing && !has_card ? sim_status::not_inserted : "";
  }
  if (state <= state_initializing || !has_card) return "";
  if (lock == lock_none || lock == lock_pin_2 || lock == lock_puk_2) return sim_status::ready;
  if (lock == lock_pin) return sim_status::pin_required;
  if (lock == lock_puk) return sim_status::puk_required;
  return lock > lock_puk_2 ? sim_status::network_locked : "";
}

void read_modem(const BusProperties& from, ModemReading& modem) {
  const std::string card = from.text("Sim");
  modem.has_card = !card.empty() && card != no_object;
  if (modem.has_card) modem.card_object = card;
  modem.device = from.text("Device");
  if (modem.device.empty()) modem.device = from.text("DeviceIdentifier");
  modem.primary_port = from.text("PrimaryPort");
  modem.reachable = true;
  modem.ready = from.number("State").value_or(0) > state_initializing;
  modem.firmware_version = from.text("Revision");
  modem.card.status = status_of(from, modem.has_card);
  if (const auto& numbers = from.list("OwnNumbers"); !numbers.empty()) modem.card.number = numbers.front();
}

void add_texts(ModemReading& modem, const BusProperties& from,
               std::initializer_list<std::pair<const char*, const char*>> names) {
  for (const auto& [name, key] : names) {
    if (const std::string text = from.text(name); !text.empty()) {
      modem.properties.emplace_back(key, plist::String::create(text));
    }
  }
}

// Where an object has no modem, there is nothing to append.
bool read_object(sd_bus_message& reply, std::string_view path, std::vector<ModemReading>& modems) {
  ModemReading modem;
  modem.object = path;
  bool is_modem = false;
  const bool is_sound = each_entry(reply, "sa{sv}", [&](std::string_view interface) {
    BusProperties properties;
    if (!properties.read(reply)) return false;
    if (interface == modem_interface) {
      is_modem = true;
      read_modem(properties, modem);
      add_texts(modem, properties,
                {{"Manufacturer", "Manufacturer"},
                 {"Model", "Model"},
                 {"Revision", "Revision"},
                 {"HardwareRevision", "HardwareRevision"},
                 {"CarrierConfiguration", "CarrierConfiguration"}});
    } else if (interface == gsm_interface) {
      add_texts(modem, properties,
                {{"Imei", "InternationalMobileEquipmentIdentity"},
                 {"OperatorCode", "OperatorCode"},
                 {"OperatorName", "OperatorName"}});
      if (const auto state = properties.number("RegistrationState")) {
        modem.properties.emplace_back("RegistrationState", plist::Number::create_int64(*state));
      }
    } else if (interface == cdma_interface) {
      add_texts(modem, properties, {{"Meid", "MobileEquipmentIdentifier"}});
    }
    return true;
  });
  if (modem.device.empty()) modem.device = modem.object;
  if (is_modem) modems.push_back(std::move(modem));
  return is_sound;
}

bool has_one_of(const BusProperties& properties, std::initializer_list<const char*> names) {
  for (const char* name : names) {
    if (properties.has(name)) return true;
  }
  return false;
}

TelephonyProtocol::Effect effect_of_properties(sd_bus_message& signal) {
  const char* interface = nullptr;
  BusProperties changed;
  if (sd_bus_message_read_basic(&signal, 's', &interface) <= 0 || !changed.read(signal)) return {};
  if (std::string_view(interface) != modem_interface) return {.read_again = true};
  if (has_one_of(changed, {"Sim", "PrimarySimSlot"})) {
    return {.read_again = true, .replaced = sd_bus_message_get_path(&signal)};
  }
  return {.read_again = has_one_of(changed, {"State", "StateFailedReason", "UnlockRequired", "OwnNumbers",
                                             "Revision", "PrimaryPort", "CarrierConfiguration"})};
}

}  // namespace

const char* ModemManager::service() const { return "org.freedesktop.ModemManager1"; }

std::span<const char* const> ModemManager::signals() const {
  static constexpr const char* rules[] = {
      "path='/org/freedesktop/ModemManager1',interface='org.freedesktop.DBus.ObjectManager'",
      "interface='org.freedesktop.DBus.Properties',arg0='org.freedesktop.ModemManager1.Modem'",
      "interface='org.freedesktop.DBus.Properties',arg0='org.freedesktop.ModemManager1.Modem.Modem3gpp'",
      "interface='org.freedesktop.DBus.Properties',arg0='org.freedesktop.ModemManager1.Sim'",
  };
  return rules;
}

TelephonyProtocol::Effect ModemManager::effect_of(sd_bus_message& signal) const {
  if (sd_bus_message_is_signal(&signal, "org.freedesktop.DBus.Properties", "PropertiesChanged") > 0) {
    return effect_of_properties(signal);
  }
  // Added or removed, or both in any order: what was known of the object before is over.
  const char* object = nullptr;
  if (sd_bus_message_read_basic(&signal, 'o', &object) <= 0) return {};
  return {.read_again = true, .replaced = object};
}

TelephonyProtocol::Method ModemManager::list_method() const {
  return {"/org/freedesktop/ModemManager1", "org.freedesktop.DBus.ObjectManager", "GetManagedObjects"};
}

bool ModemManager::read_modems(sd_bus_message& reply, std::vector<ModemReading>& modems) const {
  return each_entry(reply, "oa{sa{sv}}", [&](std::string_view path) { return read_object(reply, path, modems); });
}

TelephonyProtocol::Method ModemManager::card_method(const ModemReading& modem) const {
  return {modem.card_object, "org.freedesktop.DBus.Properties", "GetAll", sim_interface};
}

bool ModemManager::read_card(sd_bus_message& reply, ModemReading& modem) const {
  BusProperties properties;
  if (!properties.read(reply)) return false;
  CardReading& card = modem.card;
  card.identity = properties.text("SimIdentifier");
  card.subscriber = properties.text("Imsi");
  // Only a card that was read whole is known to have no group.
  const bool is_whole = card.status == sim_status::ready && card.is_complete();
  const auto group = [&](const char* name) {
    auto bytes = properties.bytes(name);
    return bytes && bytes->empty() && !is_whole ? std::nullopt : bytes;
  };
  card.group_1 = group("Gid1");
  card.group_2 = group("Gid2");
  return true;
}

}  // namespace corvane
