#pragma once

#include <span>
#include <string>
#include <systemd/sd-bus.h>
#include <vector>

#include "platform/linux/radio.h"

namespace corvane {

/// How one telephony service on the bus is asked, and what its answers mean. It keeps nothing. What an answer does
/// not say, or says in another type, is unknown.
class TelephonyProtocol {
 public:
  struct Method {
    std::string object;
    const char* interface;
    const char* member;
    const char* argument = nullptr;  ///< a string, or null where there is none
  };
  /// What a signal asks for.
  struct Effect {
    bool read_again = false;
    std::string replaced{};  ///< the object of a modem that is no longer what it was; empty: none
  };

  virtual ~TelephonyProtocol() = default;

  /// The name on the bus.
  virtual const char* service() const = 0;
  /// The match rules of the signals that may matter, without their sender.
  virtual std::span<const char* const> signals() const = 0;
  virtual Effect effect_of(sd_bus_message& signal) const = 0;

  virtual Method list_method() const = 0;
  /// Appends all modems. False where the reply is malformed.
  virtual bool read_modems(sd_bus_message& reply, std::vector<ModemReading>& modems) const = 0;

  /// For a modem that has a `card_object`.
  virtual Method card_method(const ModemReading& modem) const = 0;
  /// Completes the modem's card. False where the reply is malformed.
  virtual bool read_card(sd_bus_message& reply, ModemReading& modem) const = 0;
};

}  // namespace corvane
