#include "platform/linux/ofono.h"

#include <algorithm>
#include <initializer_list>
#include <optional>
#include <utility>

#include "platform/linux/bus_properties.h"

namespace corvane {

namespace {

constexpr char card_interface[] = "org.ofono.SimManager";

// Empty where the service does not say.
std::string_view status_of(const BusProperties& card) {
  const std::optional<bool> is_present = card.flag("Present");
  if (!is_present) return "";
  if (!*is_present) return sim_status::not_inserted;
  const std::string lock = card.text("PinRequired");
  if (lock.empty()) return "";
  if (lock == "none" || lock == "pin2" || lock == "puk2") return sim_status::ready;
  if (lock == "pin") return sim_status::pin_required;
  if (lock == "puk") return sim_status::puk_required;
  return sim_status::network_locked;
}

bool read_modem(sd_bus_message& reply, std::string_view path, std::vector<ModemReading>& modems) {
  BusProperties from;
  if (!from.read(reply)) return false;
  ModemReading modem;
  modem.object = modem.device = modem.primary_port = path;
  modem.reachable = modem.ready = from.is_set("Powered");
  const auto& interfaces = from.list("Interfaces");
  if (modem.reachable && std::find(interfaces.begin(), interfaces.end(), card_interface) != interfaces.end()) {
    modem.card_object = path;
  }
  modem.firmware_version = from.text("Revision");
  const std::initializer_list<std::pair<const char*, const char*>> names = {
      {"Serial", "InternationalMobileEquipmentIdentity"},
      {"Manufacturer", "Manufacturer"},
      {"Model", "Model"},
      {"Revision", "Revision"}};
  for (const auto& [name, key] : names) {
    if (const std::string text = from.text(name); !text.empty()) {
      modem.properties.emplace_back(key, plist::String::create(text));
    }
  }
  modems.push_back(std::move(modem));
  return true;
}

}  // namespace

const char* Ofono::service() const { return "org.ofono"; }

std::span<const char* const> Ofono::signals() const {
  static constexpr const char* rules[] = {
      "path='/',interface='org.ofono.Manager'",
      "interface='org.ofono.Modem',member='PropertyChanged'",
      "interface='org.ofono.SimManager',member='PropertyChanged'",
  };
  return rules;
}

TelephonyProtocol::Effect Ofono::effect_of(sd_bus_message& signal) const {
  const char* text = nullptr;
  if (sd_bus_message_is_signal(&signal, "org.ofono.Manager", nullptr) > 0) {
    if (sd_bus_message_read_basic(&signal, 'o', &text) <= 0) return {};
    return {.read_again = true, .replaced = text};
  }
  if (sd_bus_message_read_basic(&signal, 's', &text) <= 0) return {};
  for (const std::string_view name : {"Powered", "Interfaces", "Revision", "Serial", "Present", "PinRequired",
                                      "CardIdentifier", "SubscriberIdentity", "SubscriberNumbers"}) {
    if (text == name) return {.read_again = true};
  }
  return {};
}

TelephonyProtocol::Method Ofono::list_method() const { return {"/", "org.ofono.Manager", "GetModems"}; }

bool Ofono::read_modems(sd_bus_message& reply, std::vector<ModemReading>& modems) const {
  if (sd_bus_message_enter_container(&reply, 'a', "(oa{sv})") <= 0) return false;
  while (sd_bus_message_at_end(&reply, 0) == 0) {
    const char* path = nullptr;
    if (sd_bus_message_enter_container(&reply, 'r', "oa{sv}") <= 0) return false;
    if (sd_bus_message_read_basic(&reply, 'o', &path) <= 0) return false;
    if (!read_modem(reply, path, modems) || sd_bus_message_exit_container(&reply) < 0) return false;
  }
  return true;
}

TelephonyProtocol::Method Ofono::card_method(const ModemReading& modem) const {
  return {modem.card_object, card_interface, "GetProperties"};
}

// The facts of a card that was taken out may still be there.
bool Ofono::read_card(sd_bus_message& reply, ModemReading& modem) const {
  BusProperties properties;
  if (!properties.read(reply)) return false;
  CardReading& card = modem.card;
  card.status = status_of(properties);
  modem.has_card = properties.is_set("Present");
  if (!modem.has_card) return true;
  card.identity = properties.text("CardIdentifier");
  card.subscriber = properties.text("SubscriberIdentity");
  if (const auto& numbers = properties.list("SubscriberNumbers"); !numbers.empty()) card.number = numbers.front();
  return true;
}

}  // namespace corvane
