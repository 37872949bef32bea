#pragma once

#include <cstddef>
#include <systemd/sd-bus.h>

#include "plist/value.h"

/// Property lists as D-Bus values. docs/dbus.md has the table of types.
namespace corvane::bus {

/// How many containers may be open around a value. A message may have 64 in each other: arrays, dictionary
/// entries, structs and variants counted alike, and the innermost value as well by some receivers. A value takes
/// up to three. Message buses disconnect who sends more.
inline constexpr unsigned depth_limit = 60;

/// How large a message may become. Message buses take 32 MiB at most, unless they are configured otherwise, and
/// disconnect who sends more.
inline constexpr size_t size_limit = size_t{31} << 20;
/// What each value and each key counts besides its text or data: more than its signature, lengths and padding ever
/// take. A date takes the most, 37 bytes.
inline constexpr size_t size_of_value = 40;

/// Appends the dictionary as a{sv}, which must be the first value of the message. Returns 0 or a negative errno:
/// the message is then of no use. With -EINVAL `fault` says in one line what D-Bus cannot carry; otherwise it
/// stays as it is.
int append_dictionary(sd_bus_message& message, const plist::Dictionary& dictionary, const char*& fault);

}  // namespace corvane::bus
