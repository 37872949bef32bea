#pragma once

#include <exception>
#include <string_view>

#include "client/corvane.h"
#include "plist/value.h"

/// What the functions of corvane.h share: no exception leaves them, and errors become values.
///
/// A `corvane_value` is a `plist::Value`, so that what is borrowed from a value needs no object of its own.
namespace corvane::client {

inline const plist::Value* from_c(const corvane_value* value) {
  return reinterpret_cast<const plist::Value*>(value);
}
inline const corvane_value* to_c(const plist::Value* value) {
  return reinterpret_cast<const corvane_value*>(value);
}
/// Gives the reference to the caller of the C interface.
inline corvane_value* hand_over(plist::Ref<plist::Value> value) {
  return reinterpret_cast<corvane_value*>(value.detach());
}

/// Fills `error` in, where there is one, with the message as one line. Returns `status`. Throws std::bad_alloc.
corvane_status report(corvane_error* error, corvane_status status, std::string_view message, int64_t code = 0);
/// The same without the need for memory.
corvane_status report_no_memory(corvane_error* error);
corvane_status report_success(corvane_error* error);

/// The result of `function`, or `failure()` where it throws. std::length_error, for a size that no memory has,
/// counts as std::bad_alloc. The forced unwinding of a thread that is cancelled goes through.
template <class Function, class Failure>
auto without_exceptions(Function function, Failure failure) -> decltype(failure()) {
  try {
    return function();
  } catch (const std::exception&) {
    return failure();
  }
}

template <class Function>
corvane_status with_error(corvane_error* error, Function function) {
  return without_exceptions(function, [&] { return report_no_memory(error); });
}

}  // namespace corvane::client
