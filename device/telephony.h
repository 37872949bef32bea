#pragma once

#include <cstdint>
#include <string_view>

#include "platform/telephony.h"
#include "plist/value.h"
#include "state/data_ark.h"

/// The radio's identity: kept current in the data ark from the telephony service, and announced to the rest of the
/// system. Functions are called on the request queue unless they say otherwise.
namespace corvane {

/// Posts a system-wide notification with the name itself as the object, at once.
void post_system_notification(std::string_view name);

/// Posts "com.norvane.mobile.keelhold.phone_number_changed": the phone number may have changed.
void post_phone_number_changed();

/// Updates the ark's radio facts in the way that fits the baseband's class. Returns whether a stored fact changed;
/// always true for a class above 1. A query that fails is logged, and its fact stays as it was.
bool lookup_baseband_info(data_ark* ark);

/// Subscribes `sim_notification_callback` with the ark as observer, unless the baseband's class is above 1.
/// Main thread, once; the ark must live as long as the process.
void registerForTelvoCallNotifications(data_ark* observer);

/// The telephony centre calls this on the main run loop. All the work is done on the request queue, which owns the
/// ark: a look-up and, if that reports a change, the change hook. `name` may be null; the look-up runs all the
/// same.
void sim_notification_callback(TelephonyCentre* centre, void* observer, const plist::String* name,
                               const plist::Value* object, const plist::Dictionary* user_info);

/// What is done with the ark after a look-up that reported a change, or that ran out of memory. Set once, at start-up.
using RadioChangeHook = void (*)(data_ark* ark);
void set_radio_change_hook(RadioChangeHook hook);

/// What was done since start-up.
struct RadioCounts {
  uint64_t events = 0;   ///< notifications of the telephony service that were handled
  uint64_t changes = 0;  ///< look-ups that reported a change
};
RadioCounts radio_counts();

/// The firmware's security information, owned and mutable; empty where the query failed or had none, null
/// where there is no connection.
plist::Ref<plist::MutableDictionary> copyBasebandStatus();

/// The device property "BasebandStatus", owned, or null.
plist::Ref<plist::Value> copy_baseband_status_answer();

/// The device's own phone number, or null where there is none, it is empty, or no string.
plist::Ref<plist::String> copy_phonenumber();

/// Always null, which is logged: there is no locale preference.
plist::Ref<plist::String> copy_locale();

/// What a connection to the telephony service may call; it only logs that it did.
void _telvoserver_callback();

}  // namespace corvane
