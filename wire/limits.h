#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>

/// The limits of the daemon's sockets, and the one on responses, which its clients keep too. Those of property
/// lists stand in plist/, those of files beside what reads them.
namespace corvane::wire {

/// Request bodies.
inline constexpr uint32_t public_request_limit = 64u << 10;
inline constexpr uint32_t admin_request_limit = 64u << 20;
/// Response bodies: what the daemon sends and a client accepts.
inline constexpr uint32_t response_limit = 128u << 20;

/// A request nests less deeply than a property list may, so that a response that carries its values can be read.
inline constexpr unsigned request_depth_limit = 120;
/// A value that is set in the data ark: what is set alone can be restored among others, two levels deeper.
inline constexpr unsigned ark_value_depth = request_depth_limit - 3;

/// While a connection's pending output is more than this, the daemon reads nothing more from it.
inline constexpr size_t unread_output_limit = 1u << 20;
/// The budget for the memory of all clients of a socket together: requests being received, answers not yet sent,
/// equal large ones counted once, and the kernel's part. Over it, a request waits unless its process holds no
/// answer.
inline constexpr size_t memory_budget = size_t{64} << 20;
/// How often a request that waits for the budget is looked at again.
inline constexpr std::chrono::milliseconds budget_retry{20};

/// Connections that wait to be accepted. A client that fills the backlog keeps others waiting in it for as long as
/// it takes to accept as many.
inline constexpr int backlog = 256;

/// Requests are served, and connections accepted, for this long, or one of them, before the daemon looks who else
/// has something to ask.
inline constexpr std::chrono::milliseconds turn_slice{1};

/// A connection is closed when a request takes longer than this from its first byte to its last.
inline constexpr std::chrono::seconds request_timeout{5};
/// A connection is closed when its client takes no byte of its pending output for longer than this.
inline constexpr std::chrono::seconds write_timeout{5};

/// The descriptors that the daemon keeps for itself: about 25 for as long as it runs, one new connection at each
/// socket, and what a request and a log line open.
inline constexpr size_t own_descriptors = 40;
inline constexpr size_t admin_connection_limit = 8;
inline constexpr size_t subscriber_limit = 64;
inline constexpr size_t public_connection_limit = 512;

struct ConnectionLimits {
  size_t subscribers;
  size_t public_connections;
};

/// The limits of a process that may have so many descriptors. Public connections never take those that the others
/// need.
constexpr ConnectionLimits connection_limits(uint64_t descriptors) {
  constexpr uint64_t reserve = own_descriptors + admin_connection_limit;
  const uint64_t shared = descriptors > reserve + 2 ? descriptors - reserve : 2;
  const uint64_t subscribers = shared / 2 < subscriber_limit ? shared / 2 : subscriber_limit;
  const uint64_t rest = shared - subscribers;
  return {subscribers, rest < public_connection_limit ? rest : public_connection_limit};
}

/// While a subscriber has more than this pending, it misses what is posted.
inline constexpr size_t unread_notifications_limit = 64 * 1024;

/// A page of the data ark ends before it has more entries or bytes than this, but takes one entry of any size.
inline constexpr size_t ark_page_entries = 1000;
inline constexpr size_t ark_page_size = 1u << 20;
/// What one request may set in the data ark: so many entries, and so many bytes, with what occurs several times in
/// a value counted each time.
inline constexpr size_t ark_restore_entries = 1000;
inline constexpr size_t ark_change_limit = size_t{64} << 20;
/// The bytes of a composed key that a request may set: a log line tells each change.
inline constexpr size_t ark_key_size = 1024;
/// The keys of the data ark that clients may watch, and the bytes of a composed one.
inline constexpr size_t watched_keys_limit = 64;
inline constexpr size_t watched_key_size = 512;

/// The device properties that one request may ask for, and the bytes of a name.
inline constexpr size_t device_properties_limit = 64;
inline constexpr size_t device_property_name_size = 256;

/// After this time the daemon tries again to bind a socket, and to accept a connection for which it had no
/// descriptor.
inline constexpr std::chrono::seconds bind_retry{5};
inline constexpr std::chrono::milliseconds accept_retry{100};

}  // namespace corvane::wire
