#include "platform/telephony.h"

#include "platform/platform.h"

namespace corvane {

void TelephonyObservers::add(void* observer, TelephonyCentre::Callback callback, std::string_view name) {
  observers_.push_back({observer, callback, plist::String::create(name)});
}

void TelephonyObservers::deliver(TelephonyCentre& centre, std::string_view name) const {
  for (const Observer& observer : observers_) {
    if (observer.name->view() != name) continue;
    observer.callback(&centre, observer.observer, observer.name.get(), nullptr, nullptr);
  }
}

TelephonyCentre* TelvoTelephonyCenterGetDefault() { return platform().telephony().default_centre(); }

void TelvoTelephonyCenterSetDefaultRunloop(TelephonyCentre& centre, RunLoop& run_loop) {
  centre.set_default_run_loop(run_loop);
}

void TelvoTelephonyCenterAddObserver(TelephonyCentre& centre, void* observer, TelephonyCentre::Callback callback,
                                     std::string_view name) {
  centre.add_observer(observer, callback, name);
}

std::unique_ptr<TelvoServerConnection> TelvoServerConnectionCreate(void (*callback)()) {
  return platform().telephony().connect(callback);
}

TelvoRadioStatus TelvoCopyRadioStatus() { return platform().telephony().copy_radio_status(); }

plist::Ref<plist::Value> TelvoSIMSupportGetSIMStatus() { return platform().telephony().sim_status(); }

plist::Ref<plist::Value> TelvoSettingCopyMyPhoneNumber() { return platform().telephony().copy_my_phone_number(); }

}  // namespace corvane
