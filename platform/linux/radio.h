#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/telephony.h"
#include "plist/value.h"

/// What is known of the radio: as a telephony service says it (readings), and as the daemon is told it (the
/// snapshot).
namespace corvane {

/// The strings of `TelvoSIMSupportGetSIMStatus`.
namespace sim_status {
inline constexpr std::string_view ready = "ready";
inline constexpr std::string_view not_inserted = "not inserted";
inline constexpr std::string_view pin_required = "pin required";
inline constexpr std::string_view puk_required = "puk required";
inline constexpr std::string_view network_locked = "network locked";
inline constexpr std::string_view error = "error";
}  // namespace sim_status

/// How long a modem that is gone, or a card that is not read whole, may mean that either is being set up anew.
inline constexpr std::chrono::seconds radio_hold{10};

/// The domains of a failed query's status.
enum TelvoDomain : int32_t { telvo_domain_bus = 1, telvo_domain_service = 2, telvo_domain_card = 3 };

/// One card, all facts from the same look at it. What is empty or null is unknown.
struct CardReading {
  std::string_view status;  ///< one of `sim_status`
  std::string identity;
  std::string subscriber;
  std::optional<std::string> group_1, group_2;  ///< may be known to be empty
  std::string number;
  TelvoStatus failure;  ///< of the last attempt to read the card

  bool is_out() const { return status == sim_status::not_inserted; }
  /// Whether nothing more is to be expected of the card as it is.
  bool is_complete() const {
    if (failure.failed() || status.empty()) return false;
    return status != sim_status::ready || (!identity.empty() && !subscriber.empty());
  }
};

/// One modem and the card in it.
struct ModemReading {
  std::string object;        ///< the path of its object
  std::string card_object;   ///< the path of the object that knows the card; empty where there is none
  std::string device;        ///< stays the same when the modem comes back as another object
  std::string primary_port;  ///< "ttyUSB2"
  bool reachable = false;    ///< it can be asked
  bool ready = false;        ///< its radio can be used
  bool has_card = false;     ///< one that may be locked or broken
  std::string firmware_version;
  /// What the radio status record holds beside the card's identity.
  std::vector<std::pair<std::string_view, plist::Ref<plist::Value>>> properties;
  CardReading card;
};

/// All answers at one moment, of one card. Null is no answer.
struct RadioSnapshot {
  bool connected = false;
  TelvoStatus card_failure;  ///< of the queries that ask the card
  plist::Ref<plist::Value> identity, subscriber, group_1, group_2;
  plist::Ref<plist::Value> firmware_version;
  plist::Ref<plist::Value> status;
  plist::Ref<plist::Value> number;
  TelvoRadioStatus radio;
};

}  // namespace corvane
