#pragma once

#include <chrono>
#include <deque>
#include <functional>
#include <string>
#include <vector>

#include "platform/linux/radio.h"
#include "platform/linux/system_bus.h"
#include "platform/linux/telephony_protocol.h"
#include "platform/report.h"

namespace corvane {

/// Keeps current what one telephony service says of its modems.
///
/// It follows the owner of the service's name, and believes nobody else. Whatever a signal says, everything is
/// read anew: the list of modems, then each modem's card. So signals may come in any order and any number;
/// readings are apart from each other, and one that was overtaken by a change of its modems is dropped. A reading
/// that fails is tried again. Main thread; what takes memory throws std::bad_alloc.
class ServiceReader {
 public:
  static constexpr size_t most_modems = 16;  ///< the others are ignored

  /// `changed` is called whenever `modems` has others than before. All must outlive the reader. Throws
  /// std::system_error where the system refuses a timer.
  ServiceReader(const TelephonyProtocol& protocol, SystemBus& bus, std::function<void()> changed);

  /// The bus is there.
  void start(sd_bus& bus);
  /// The bus is gone, and with it the service.
  void stop();

  const std::vector<ModemReading>& modems() const { return modems_; }

 private:
  /// Where a slot's callback finds the reader, and the modem whose card was asked for.
  struct CardCall {
    ServiceReader& reader;
    size_t modem;
    BusSlot slot;
  };

  template <class Handle>
  static int handle(ServiceReader& reader, Handle handle) noexcept;
  BusSlot match(const std::string& rule, sd_bus_message_handler_t handler);
  BusSlot call(const char* destination, const TelephonyProtocol::Method& method, sd_bus_message_handler_t handler,
               void* data);

  void find_owner();
  void take_owner(sd_bus_message& reply);
  void set_owner(std::string_view owner);
  void start_over();
  void take_signal(sd_bus_message& signal);

  void read_soon();
  void read();
  void take_list(sd_bus_message& reply);
  void take_card(CardCall& call, sd_bus_message& reply);
  void finish();
  void fail(const char* what, int error);
  void set_modems(std::vector<ModemReading> modems);

  const TelephonyProtocol& protocol_;
  const std::function<void()> changed_;
  sd_bus* bus_ = nullptr;
  std::string owner_;  ///< its unique name; empty while nobody has the service's name
  BusSlot owner_match_;
  BusSlot owner_call_;
  std::vector<BusSlot> signal_matches_;

  BusSlot list_call_;
  std::deque<CardCall> card_calls_;
  size_t awaited_cards_ = 0;
  std::vector<ModemReading> pending_;
  bool is_reading_ = false;
  bool read_again_ = false;  ///< something has changed since the reading began
  bool is_stale_ = false;    ///< a modem has changed since, and what is read may be of two
  bool has_failed_ = false;

  std::vector<ModemReading> modems_;
  BusTimer timer_;  ///< to read, or find the owner, again
  std::chrono::steady_clock::time_point next_reading_{};
  bool is_failing_ = false;  ///< that it fails has been reported
  RateLimitedReport there_report_, gone_report_;
  RateLimitedReport failure_report_;
};

}  // namespace corvane
