#pragma once

#include <cstddef>
#include <deque>
#include <map>
#include <string>
#include <systemd/sd-bus.h>

#include "bus/sd_pointers.h"
#include "bus/worker.h"
#include "client/client.h"

namespace corvane::bus {

/// Calls that may wait for an answer: those of one caller, and those of all. A bus lets a user have 256
/// connections unless it is configured otherwise, so that one user alone cannot take all places.
inline constexpr size_t calls_per_caller = 8;
inline constexpr size_t call_limit = 4096;

/// Answers calls for the regulatory images. One request to the daemon answers all calls that came before it. Those
/// that come meanwhile wait for the next request, so that everybody gets images that were read after the call.
/// Belongs to the event loop.
class ImageCalls {
 public:
  /// Throws std::system_error where the system refuses a thread.
  explicit ImageCalls(sd_event& loop);

  /// Takes a call, which is answered later. Returns 1, or a negative number with the error set where there are too
  /// many.
  int add(sd_bus_message* call, sd_bus_error* error);
  /// Lets one call be answered where that can be done. To be called whenever the bus has taken all that was sent,
  /// so that no more than one answer is in memory.
  void go_on();

 private:
  void ask();
  void answer_next();
  void answer(sd_bus_message* call) const;
  int send_answer(sd_bus_message* call) const;

  SourcePtr answering_;
  std::deque<MessagePtr> waiting_;  ///< for the next request
  std::deque<MessagePtr> asked_;    ///< those that the current request answers
  client::Answer found_;            ///< the worker's while it is busy
  std::map<std::string, size_t, std::less<>> calls_of_;
  Worker worker_;  ///< the last, because its job may be running until it is destroyed
};

}  // namespace corvane::bus
