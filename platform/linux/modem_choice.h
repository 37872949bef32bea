#pragma once

#include <chrono>
#include <optional>
#include <span>
#include <string>

#include "platform/linux/radio.h"

namespace corvane {

/// Chooses the modem to follow. ModemManager's come first, oFono's where only that has any. Of several: one with a
/// card, then the one with the lowest primary port. The chosen one is kept while it is there and for `radio_hold`
/// after; one that is known to have no card gives way to one with a card. No system calls. One thread.
class ModemChoice {
 public:
  using Modems = std::span<const ModemReading>;
  using Time = std::chrono::steady_clock::time_point;

  /// Borrowed from the arguments; null where there is no modem, or where the chosen one may still come back.
  const ModemReading* choose(Modems modem_manager, Modems ofono, Time now);

  /// When to choose again although nothing has changed.
  std::optional<Time> deadline() const { return deadline_; }

 private:
  enum class Service { none, modem_manager, ofono };

  const ModemReading* take(const ModemReading* modem, Service service);

  Service service_ = Service::none;
  std::string device_;
  bool had_card_ = false;              ///< when that was last known
  std::optional<Time> unclear_since_;  ///< it is gone, or nothing is known of its card
  std::optional<Time> deadline_;
};

}  // namespace corvane
