#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

#include "platform/simulated/profile.h"
#include "platform/telephony.h"

namespace corvane {

/// The telephony service of a simulated device: answers from the profile's dictionary "Telephony", and
/// delivers the notifications that follow from an edit of the profile.
///
/// Every question is answered from a snapshot: the dictionary as it was when the profile was last read, which is
/// at each question where the profile's folder is not watched. A connection keeps the snapshot that it was made
/// with, and reports bad numbers among its "Errors" once for each snapshot. Without a "Telephony" there is no
/// centre and no connection. Once the centre has its run loop, the profile's folder is watched there, so that a
/// file that is replaced is seen as well as one that is written.
class SimulatedTelephony final : public Telephony, public TelephonyCentre {
 public:
  /// The profile must outlive this.
  explicit SimulatedTelephony(Profile& profile);

  /// Whether the service can be asked. Any thread.
  bool is_connected();

  TelephonyCentre* default_centre() override;
  std::unique_ptr<TelvoServerConnection> connect(void (*callback)()) override;
  TelvoRadioStatus copy_radio_status() override;
  plist::Ref<plist::Value> sim_status() override;
  plist::Ref<plist::Value> copy_my_phone_number() override;

  void set_default_run_loop(RunLoop& run_loop) override;
  void add_observer(void* observer, Callback callback, std::string_view name) override;

 private:
  plist::Ref<plist::Dictionary> snapshot();
  plist::Ref<plist::Value> copy_entry(std::string_view key);
  plist::Ref<plist::Dictionary> take_new_snapshot();
  void look_for_changes();

  Profile& profile_;
  TelephonyObservers observers_;                  // main thread
  plist::Ref<plist::Dictionary> last_connected_;  // request queue: the snapshot of the last connection
  std::mutex mutex_;
  plist::Ref<plist::Dictionary> snapshot_;
  std::atomic<bool> is_watched_ = false;
};

}  // namespace corvane
