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

/// From a request's first byte to its last, and from one byte that a peer takes of its answer to the next.
inline constexpr std::chrono::seconds patience{5};

/// Public connections: at most this many, and never so many that fewer than the reserve of the process's
/// descriptors is left for everything else.
inline constexpr size_t public_connection_limit = 512;
inline constexpr size_t descriptor_reserve = 64;
inline constexpr size_t admin_connection_limit = 8;
/// A connection is not closed for a newcomer before it was silent for this long, so that a crowd of
/// newcomers cannot push out a client that is about to ask.
inline constexpr std::chrono::milliseconds eviction_grace{50};

/// Subscribers to notifications are not closed for newcomers. While one has more than this unread it misses
/// what is posted.
inline constexpr size_t subscriber_limit = 64;
inline constexpr size_t unread_notifications_limit = 64 * 1024;

/// How long the daemon waits before it tries again to bind a socket that could not be bound, and to accept
/// after it ran out of descriptors.
inline constexpr std::chrono::seconds bind_retry{5};
inline constexpr std::chrono::milliseconds accept_retry{100};

}  // namespace corvane::wire
