#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>

#include "client/socket.h"
#include "plist/value.h"
#include "wire/limits.h"
#include "wire/messages.h"

/// The client library: connect, send a request, get a dictionary, nothing or an error back.
namespace corvane::client {

inline constexpr std::chrono::milliseconds default_timeout{5000};

/// How a call ended.
enum class Outcome {
  answered,       ///< the daemon answered: a dictionary, nothing, or an error of its own
  refused,        ///< no connection: nobody serves the socket, or none could be made
  not_permitted,  ///< no connection: this user may not use the socket
  closed,         ///< the connection ended before the whole answer had come
  timed_out,      ///< the whole answer had not come when the timeout was over
  bad_answer,     ///< what came is no answer to the request
  too_long,       ///< the answer is longer than the connection takes
  bad_request,    ///< not sent: the request cannot be encoded, or is longer than the service takes
};

struct Answer {
  Outcome outcome = Outcome::answered;
  std::string detail;       ///< what went wrong; empty when answered
  wire::Response response;  ///< when answered
};

/// How a call ended for which no connection could be made, by the errno of connecting.
Outcome refusal(int connect_error);
/// The same for a person. Throws std::bad_alloc.
std::string refusal_text(const std::string& path, int connect_error);

/// A connection to one service of the daemon, made at the first request. Between requests it may be idle for as
/// long as the caller likes. The daemon may close it meanwhile; the next request then makes a new one. Blocking;
/// for one thread at a time.
class Connection {
 public:
  /// The service's socket is `root` + "/run/corvaned/" + `service_name`. The timeout is that of each request, from
  /// connecting to the last byte of the answer. An answer may take up to fifteen times its size while it is read.
  explicit Connection(std::string_view service_name, const std::string& root = root_from_environment(),
                      std::chrono::milliseconds timeout = default_timeout,
                      uint32_t response_limit = wire::response_limit);

  /// Sends a request (see `wire::make_request`) and waits for the answer, whose values are immutable.
  ///
  /// The answer names the selector of the request. Only an error may come without one: so the daemon answers a
  /// request that it could not read.
  ///
  /// After `closed`, `timed_out`, `bad_answer` and `too_long` the connection is closed, and whether the daemon has
  /// acted on the request is not known. A request is sent a second time, over a new connection, when one from an
  /// earlier request turns out to be closed and no byte of an answer has come. Throws std::bad_alloc; the
  /// connection is then closed too, and the daemon may have acted.
  Answer ask(const plist::Dictionary& request);

  /// The variable CORVANE_ROOT. Empty where it is not set, and in programs that have more rights than their user.
  static std::string root_from_environment();

 private:
  Answer send_and_receive(const plist::Dictionary& request);

  const std::string path_;
  const size_t request_limit_;
  const uint32_t response_limit_;
  const std::chrono::milliseconds timeout_;
  Socket socket_;
};

}  // namespace corvane::client
