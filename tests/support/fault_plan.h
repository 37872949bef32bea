#pragma once

#include <atomic>
#include <cstdint>

namespace corvane::testing {

/// Kinds of calls: those that make a descriptor, work on a path, move bytes, work on a descriptor, make memory.
enum Call : uint32_t { opening = 1, naming = 2, moving = 4, managing = 8, allocating = 16 };

/// In place of an error: the process is killed at the call.
inline constexpr int killed = -1;

/// Which calls of a process fail. A test shares it with the shim in that process; all zeros fail nothing.
struct FaultPlan {
  std::atomic<uint32_t> calls{0};  ///< the kinds that are counted, a set of Call
  std::atomic<int> error{0};       ///< what errno says, or `killed`; 0: half of the bytes are moved
  std::atomic<int64_t> first{0};   ///< the counted call that fails first, from 1 on, and ...
  std::atomic<int64_t> last{0};    ///< ... last
  std::atomic<int64_t> seen{0};
  std::atomic<int64_t> failed{0};
  char name[32] = {};                     ///< of the last one that failed
  std::atomic<int64_t> seconds_ahead{0};  ///< of the process's steady clock
};

}  // namespace corvane::testing
