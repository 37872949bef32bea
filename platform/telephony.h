#pragma once

namespace corvane {

class RunLoop;

/// The telephony service's notification centre.
class TelephonyCentre {
 public:
  virtual ~TelephonyCentre() = default;

  /// From now on notifications are delivered on this run loop.
  virtual void set_default_run_loop(RunLoop& run_loop) = 0;
};

/// The installed platform's centre, borrowed, or null where there is none.
TelephonyCentre* TelvoTelephonyCenterGetDefault();

void TelvoTelephonyCenterSetDefaultRunloop(TelephonyCentre& centre, RunLoop& run_loop);

}  // namespace corvane
