#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>

#include "platform/linux/radio.h"

namespace corvane {

/// Makes of the readings of one modem what the daemon is told: the answers to its queries, and the notifications.
///
/// - The identity and the subscriber are never of two cards. Until the first subscriber is known the identity is
///   withheld, because what is stored may be of another card.
/// - What a service does not say is unknown. An identity is only given as "", which removes it, when the card is
///   known to be out; a subscriber also when this run saw another card take its card's place.
/// - A modem that is gone, and a card that is not read whole, say nothing for `radio_hold`. Then they count as
///   they are: without a modem there is no SIM status, and the identities stay.
/// - The first whole reading, and a fact that becomes known, are announced as a change of the SIM status: nothing
///   else would make the daemon look at them.
///
/// No system calls. One thread.
class RadioFollower {
 public:
  using Time = std::chrono::steady_clock::time_point;
  /// What to announce, in this order.
  struct Changes {
    bool sim_inserted = false;
    bool sim_status = false;
    bool phone_number = false;
  };

  /// Takes a reading; null where there is no modem.
  Changes update(const ModemReading* modem, Time now);

  /// Immutable, never null.
  std::shared_ptr<const RadioSnapshot> snapshot() const { return snapshot_; }
  /// When to update again although nothing has changed.
  std::optional<Time> deadline() const { return deadline_; }

 private:
  void add_identities(RadioSnapshot& next, const CardReading& card);
  bool note_insertion(const CardReading& card);
  Changes take(const ModemReading& modem);
  Changes take_absence();
  bool holds(std::optional<Time>& since, Time now);

  std::shared_ptr<const RadioSnapshot> snapshot_ = std::make_shared<RadioSnapshot>();
  std::optional<Time> gone_since_;
  std::optional<Time> incomplete_since_;  ///< it goes on while the modem is gone for less than `radio_hold`
  std::optional<Time> deadline_;

  bool had_complete_ = false;
  std::optional<std::string> card_;  ///< the last identity seen; "" after a card was out
  /// The last card whose subscriber was known, and who that is. The card stays his when it is locked again.
  std::string subscriber_card_, subscriber_;
};

}  // namespace corvane
