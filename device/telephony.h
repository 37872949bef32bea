#pragma once

#include <string_view>

#include "platform/telephony.h"
#include "plist/value.h"
#include "state/data_ark.h"

/// The radio's identity: kept current in the data ark from the telephony service, and announced to the rest
/// of the system. Request queue, but where it says otherwise.
namespace corvane {

/// Posts a system-wide notification with the name itself as the object, at once.
void post_system_notification(std::string_view name);

/// Says that the phone number may have changed: "com.norvane.mobile.keelhold.phone_number_changed".
void post_phone_number_changed();

/// Brings the ark's radio facts up to date, in the way that fits the baseband's class. Whether what is stored
/// changed; of a class above 1 always true. A query that fails is logged, and what it would have answered stays
/// as it was.
bool lookup_baseband_info(data_ark* ark);

/// Subscribes `sim_notification_callback` with the ark as observer, unless the baseband's class is above 1.
/// Main thread, once; the ark must live as long as the process.
void registerForTelvoCallNotifications(data_ark* observer);

/// What the telephony centre calls on the main run loop. The whole of it is done on the request queue, where
/// the ark lives: a look-up, and after one that reports a change the change hook.
void sim_notification_callback(TelephonyCentre* centre, void* observer, const plist::String* name,
                               const plist::Value* object, const plist::Dictionary* user_info);

/// What is done with the ark after a look-up that reported a change. Set once, at start-up.
using RadioChangeHook = void (*)(data_ark* ark);
void set_radio_change_hook(RadioChangeHook hook);

/// The firmware's security information, owned and mutable; empty where the query failed or had none, null
/// where there is no connection.
plist::Ref<plist::MutableDictionary> copyBasebandStatus();

/// The device property "BasebandStatus", owned, or null.
plist::Ref<plist::Value> copy_baseband_status_answer();

/// The device's own phone number, or null where there is none, it is empty, or no string.
plist::Ref<plist::String> copy_phonenumber();

/// There is no locale preference to be had: logs so, and answers null.
plist::Ref<plist::String> copy_locale();

/// What a connection to the telephony service may call; it only logs that it did.
void _telvoserver_callback();

}  // namespace corvane
