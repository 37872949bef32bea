#pragma once

#include "platform/linux/telephony_protocol.h"

namespace corvane {

/// ModemManager, "org.freedesktop.ModemManager1". Group identifiers need version 1.20.
class ModemManager final : public TelephonyProtocol {
 public:
  const char* service() const override;
  std::span<const char* const> signals() const override;
  Effect effect_of(sd_bus_message& signal) const override;
  Method list_method() const override;
  bool read_modems(sd_bus_message& reply, std::vector<ModemReading>& modems) const override;
  Method card_method(const ModemReading& modem) const override;
  bool read_card(sd_bus_message& reply, ModemReading& modem) const override;
};

}  // namespace corvane
