#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace corvane {

/// Why the daemon closed a connection that its client had not closed.
enum class CloseReason { refused, evicted, timeout, not_reading, bad_frame, too_long, descriptors, out_of_memory };

/// One name for each reason, for programs. They stay as they are.
inline constexpr std::array<std::string_view, 8> close_reason_names{
    "refused", "evicted", "timeout", "not reading", "bad frame", "too long", "descriptors", "out of memory"};

/// How a socket is used.
struct ConnectionCounts {
  size_t open = 0;
  size_t limit = 0;
  uint64_t accepted = 0;                                     ///< since start-up, without those refused
  std::array<uint64_t, close_reason_names.size()> closed{};  ///< since start-up, by CloseReason

  void count(CloseReason reason) { ++closed[static_cast<size_t>(reason)]; }
};

}  // namespace corvane
