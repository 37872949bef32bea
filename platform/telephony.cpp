#include "platform/telephony.h"

#include "platform/platform.h"

namespace corvane {

TelephonyCentre* TelvoTelephonyCenterGetDefault() { return platform().telephony_centre(); }

void TelvoTelephonyCenterSetDefaultRunloop(TelephonyCentre& centre, RunLoop& run_loop) {
  centre.set_default_run_loop(run_loop);
}

}  // namespace corvane
