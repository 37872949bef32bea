#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string_view>
#include <vector>

#include "plist/value.h"

/// The telephony service `Telvo`. A real one implements these classes; nothing above this header knows more
/// of it. Queries are answered at once, from what the service keeps current by itself.
namespace corvane {

class RunLoop;

/// The result of a query, which failed when `error` is not 0.
struct TelvoStatus {
  int32_t domain = 0;
  int32_t error = 0;

  bool failed() const { return error != 0; }
};

/// A connection to the telephony service, for queries. Request queue.
class TelvoServerConnection {
 public:
  enum class Query {
    sim_identity,
    mobile_subscriber_identity,
    firmware_version,
    bootloader_version,
    group_identifier_1,
    group_identifier_2,
    firmware_security_info,
  };

  virtual ~TelvoServerConnection() = default;

  /// On success an owned value goes to `slot`, which may also stay null.
  virtual TelvoStatus copy(Query query, plist::Ref<plist::Value>& slot) = 0;
};

/// The radio's status record.
struct TelvoRadioStatus {
  plist::Ref<plist::Value> readiness;        ///< null where the radio does not respond
  plist::Ref<plist::Dictionary> properties;  ///< null where there are none
};

/// The names of the notifications that the centre delivers.
inline constexpr std::string_view telvo_sim_inserted = "TelvoSIMNewlyInsertedNotification";
inline constexpr std::string_view telvo_sim_status_changed = "TelvoSIMStatusChangedNotification";
inline constexpr std::string_view telvo_phone_number_changed = "TelvoPhoneNumberSettingChangedNotification";

/// The readiness of a radio that is not ready.
inline constexpr std::string_view telvo_not_ready = "not ready";

/// The telephony service's notification centre.
class TelephonyCentre {
 public:
  /// Given the centre, the observer, the notification's name, its object and its user information.
  using Callback = void (*)(TelephonyCentre* centre, void* observer, const plist::String* name,
                            const plist::Value* object, const plist::Dictionary* user_info);

  virtual ~TelephonyCentre() = default;

  /// From now on notifications are delivered on this run loop.
  virtual void set_default_run_loop(RunLoop& run_loop) = 0;
  /// Delivers the notification `name` to the observer at once, for the life of the centre. Main thread.
  virtual void add_observer(void* observer, Callback callback, std::string_view name) = 0;
};

/// The observers of a centre, kept by whoever implements one. Main thread.
class TelephonyObservers {
 public:
  void add(void* observer, TelephonyCentre::Callback callback, std::string_view name);
  /// Calls those of the notification `name`, in the order in which they were added.
  void deliver(TelephonyCentre& centre, std::string_view name) const;

 private:
  struct Observer {
    void* observer;
    TelephonyCentre::Callback callback;
    plist::Ref<plist::String> name;
  };

  std::vector<Observer> observers_;
};

/// The telephony service of a platform.
class Telephony {
 public:
  virtual ~Telephony() = default;

  /// Borrowed, or null where there is none.
  virtual TelephonyCentre* default_centre() = 0;
  /// Null where the service cannot be reached. `callback` is the service's to call.
  virtual std::unique_ptr<TelvoServerConnection> connect(void (*callback)()) = 0;
  virtual TelvoRadioStatus copy_radio_status() = 0;
  /// Null where there is none.
  virtual plist::Ref<plist::Value> sim_status() = 0;
  /// From the telephony settings; normally a string, or null.
  virtual plist::Ref<plist::Value> copy_my_phone_number() = 0;
};

// The service's operations by their names, asked of the installed platform.

TelephonyCentre* TelvoTelephonyCenterGetDefault();
void TelvoTelephonyCenterSetDefaultRunloop(TelephonyCentre& centre, RunLoop& run_loop);
void TelvoTelephonyCenterAddObserver(TelephonyCentre& centre, void* observer, TelephonyCentre::Callback callback,
                                     std::string_view name);
std::unique_ptr<TelvoServerConnection> TelvoServerConnectionCreate(void (*callback)());
TelvoRadioStatus TelvoCopyRadioStatus();
plist::Ref<plist::Value> TelvoSIMSupportGetSIMStatus();
plist::Ref<plist::Value> TelvoSettingCopyMyPhoneNumber();

}  // namespace corvane
