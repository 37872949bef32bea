#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>

/// Every bound that the daemon's service keeps, and the one its clients keep.
namespace corvane::wire {

/// Request bodies.
inline constexpr uint32_t public_request_limit = 1u << 20;
inline constexpr uint32_t admin_request_limit = 64u << 20;
/// Response bodies: what the daemon sends and a client accepts.
inline constexpr uint32_t response_limit = 128u << 20;

/// A request nests less deeply than a property list may, so that the answer which carries its values back
/// can be read.
inline constexpr unsigned request_depth_limit = 120;

/// While more output than this is unread the daemon reads nothing more from a connection.
inline constexpr size_t unread_output_limit = 1u << 20;
/// Once the answers that the clients of a socket have not read whole come to more than this, no request is
/// answered there until they have come down to half of it.
inline constexpr size_t all_unread_output_limit = size_t{256} << 20;

/// From a request's first byte to its last, and from one byte that a peer takes of its answer to the next.
inline constexpr std::chrono::seconds patience{5};
/// The latter while others wait for a peer to give room.
inline constexpr std::chrono::milliseconds patience_in_need{250};

/// The descriptors that the daemon has of its own: about 20 for as long as it runs, a newcomer at each socket,
/// and what a request and a log line open.
inline constexpr size_t own_descriptors = 32;
inline constexpr size_t admin_connection_limit = 8;
inline constexpr size_t subscriber_limit = 64;
inline constexpr size_t public_connection_limit = 512;

struct ConnectionLimits {
  size_t subscribers;
  size_t public_connections;
};

/// How many a process that may have so many descriptors takes on. Public connections never get at what the
/// others need.
constexpr ConnectionLimits connection_limits(uint64_t descriptors) {
  constexpr uint64_t reserve = own_descriptors + admin_connection_limit;
  const uint64_t shared = descriptors > reserve + 2 ? descriptors - reserve : 2;
  const uint64_t subscribers = shared / 2 < subscriber_limit ? shared / 2 : subscriber_limit;
  const uint64_t rest = shared - subscribers;
  return {subscribers, rest < public_connection_limit ? rest : public_connection_limit};
}

/// A connection is not closed for a newcomer before it was silent for this long, so that a crowd of
/// newcomers cannot push out a client that is about to ask.
inline constexpr std::chrono::milliseconds eviction_grace{50};

/// While a subscriber to notifications has more than this unread it misses what is posted.
inline constexpr size_t unread_notifications_limit = 64 * 1024;

/// How long the daemon waits before it tries again to bind a socket that could not be bound, and to accept
/// after it ran out of descriptors.
inline constexpr std::chrono::seconds bind_retry{5};
inline constexpr std::chrono::milliseconds accept_retry{100};

}  // namespace corvane::wire
