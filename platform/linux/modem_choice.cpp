#include "platform/linux/modem_choice.h"

#include <algorithm>
#include <string_view>
#include <tuple>

namespace corvane {

namespace {

// "ttyUSB2" comes before "ttyUSB10".
bool has_lower_port(const ModemReading& a, const ModemReading& b) {
  const auto split = [](std::string_view port) {
    const size_t digits = std::min(port.find_last_not_of("0123456789") + 1, port.size());
    return std::tuple(port.substr(0, digits), port.size() - digits, port.substr(digits));
  };
  return split(a.primary_port) < split(b.primary_port);
}

bool is_better(const ModemReading& a, const ModemReading& b) {
  return a.has_card != b.has_card ? a.has_card : has_lower_port(a, b);
}

const ModemReading* best_of(ModemChoice::Modems modems) {
  const auto best = std::min_element(modems.begin(), modems.end(), is_better);
  return best == modems.end() ? nullptr : &*best;
}

const ModemReading* find_device(ModemChoice::Modems modems, const std::string& device) {
  const auto found =
      std::find_if(modems.begin(), modems.end(), [&](auto& modem) { return modem.device == device; });
  return found == modems.end() ? nullptr : &*found;
}

}  // namespace

const ModemReading* ModemChoice::choose(Modems modem_manager, Modems ofono, Time now) {
  deadline_.reset();
  const Service first = !modem_manager.empty() ? Service::modem_manager : Service::ofono;
  if (service_ == Service::ofono && first == Service::modem_manager) service_ = Service::none;

  const ModemReading* current = nullptr;
  if (service_ != Service::none) {
    current = find_device(service_ == Service::ofono ? ofono : modem_manager, device_);
    const bool is_clear = current != nullptr && (current->has_card || current->card.is_out());
    if (is_clear) {
      had_card_ = current->has_card;
      unclear_since_.reset();
    } else if (!unclear_since_) {
      unclear_since_ = now;
    }
  }
  const bool is_awaited = service_ != Service::none && unclear_since_ && now < *unclear_since_ + radio_hold;
  if (is_awaited) deadline_ = *unclear_since_ + radio_hold;
  const bool keeps = service_ != Service::none && (is_awaited || !unclear_since_);

  const ModemReading* best = best_of(first == Service::ofono ? ofono : modem_manager);
  if (keeps && had_card_) return current;
  if (best != nullptr && best->has_card) return take(best, first);
  if (keeps || current != nullptr) return current;
  return take(best, first);
}

const ModemReading* ModemChoice::take(const ModemReading* modem, Service service) {
  service_ = modem == nullptr ? Service::none : service;
  device_ = modem == nullptr ? "" : modem->device;
  had_card_ = modem != nullptr && modem->has_card;
  unclear_since_.reset();
  deadline_.reset();
  return modem;
}

}  // namespace corvane
