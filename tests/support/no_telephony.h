#pragma once

#include "platform/telephony.h"

namespace corvane {

/// The telephony service of a device that has none: no centre, no connection, no answers.
class NoTelephony final : public Telephony {
 public:
  TelephonyCentre* default_centre() override { return nullptr; }
  std::unique_ptr<TelvoServerConnection> connect(void (*)()) override { return nullptr; }
  TelvoRadioStatus copy_radio_status() override { return {}; }
  plist::Ref<plist::Value> sim_status() override { return nullptr; }
  plist::Ref<plist::Value> copy_my_phone_number() override { return nullptr; }
};

}  // namespace corvane
