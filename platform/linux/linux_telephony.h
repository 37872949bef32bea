#pragma once

#include <chrono>
#include <memory>
#include <mutex>
#include <string_view>

#include "platform/device_properties.h"
#include "platform/linux/modem_choice.h"
#include "platform/linux/modem_manager.h"
#include "platform/linux/ofono.h"
#include "platform/linux/radio_follower.h"
#include "platform/linux/service_reader.h"
#include "platform/linux/system_bus.h"
#include "platform/telephony.h"

namespace corvane {

/// The telephony service of a Linux device: ModemManager, and oFono where only that has a modem, on the system
/// bus. The centre is there whether or not a bus or a service is. Both are looked for once the centre has its run
/// loop, and again after each loss.
///
/// What happens on the bus becomes an immutable snapshot on the main run loop. Queries are answered from that at
/// once; a connection keeps the snapshot that it was made with. What neither service knows is asked of the device
/// properties: "BasebandBootloaderVersion" and "BasebandFirmwareSecurityInfo".
class LinuxTelephony final : public Telephony, public TelephonyCentre {
 public:
  /// The properties must outlive this. Throws std::system_error where the system refuses an event loop.
  explicit LinuxTelephony(DeviceProperties& properties);

  /// Whether the service can be asked, and whether there is a system bus. Any thread.
  bool is_connected() { return snapshot()->connected; }
  bool has_bus() const { return bus_.is_connected(); }

  TelephonyCentre* default_centre() override { return this; }
  std::unique_ptr<TelvoServerConnection> connect(void (*callback)()) override;
  TelvoRadioStatus copy_radio_status() override { return snapshot()->radio; }
  plist::Ref<plist::Value> sim_status() override { return snapshot()->status; }
  plist::Ref<plist::Value> copy_my_phone_number() override { return snapshot()->number; }

  void set_default_run_loop(RunLoop& run_loop) override;
  void add_observer(void* observer, Callback callback, std::string_view name) override;

 private:
  std::shared_ptr<const RadioSnapshot> snapshot();
  void update();

  DeviceProperties& properties_;
  TelephonyObservers observers_;

  // On the main run loop.
  const ModemManager modem_manager_;
  const Ofono ofono_;
  SystemBus bus_;
  ServiceReader modem_manager_reader_;
  ServiceReader ofono_reader_;
  ModemChoice choice_;
  RadioFollower follower_;
  BusTimer deadline_;

  std::mutex mutex_;
  std::shared_ptr<const RadioSnapshot> snapshot_;
};

}  // namespace corvane
