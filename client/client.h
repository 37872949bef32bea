#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>

#include "plist/value.h"
#include "wire/messages.h"

/// The client library: connect, ask, get a dictionary or an error back.
namespace corvane::client {

inline constexpr std::chrono::milliseconds default_timeout{5000};

/// How a call ended.
enum class Outcome {
  answered,     ///< the daemon answered: a dictionary, nothing, or an error of its own
  refused,      ///< nobody serves the socket, or it is not for this user
  closed,       ///< the daemon closed the connection before it answered
  timed_out,    ///< no whole answer came in time
  bad_answer,   ///< what came is no answer to the request
  bad_request,  ///< the request cannot be encoded, or is longer than the service takes
};

struct Answer {
  Outcome outcome = Outcome::answered;
  std::string detail;       ///< one line, unless answered
  wire::Response response;  ///< when answered
};

/// A connection to one service of the daemon, made when it is first needed. Between requests it may be
/// silent for as long as it likes; where the daemon has closed it meanwhile to make room for others, the next
/// call makes a new one. Blocking; one thread at a time.
class Connection {
 public:
  /// The socket of a service is `root` + "/run/corvaned/" + its name.
  explicit Connection(std::string_view service_name, const std::string& root = root_from_environment(),
                      std::chrono::milliseconds timeout = default_timeout);
  ~Connection();
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  /// Sends one request (see `wire::make_request`) and waits for its answer. The timeout covers the whole
  /// call. After any outcome but `answered` the connection is closed; whether the daemon acted on the
  /// request is then not known. The values of the answer are immutable. Throws std::bad_alloc.
  Answer ask(const plist::Dictionary& request);

  /// CORVANE_ROOT, or nothing.
  static std::string root_from_environment();

 private:
  void disconnect();

  const std::string path_;
  const size_t request_limit_;
  const std::chrono::milliseconds timeout_;
  int socket_ = -1;
};

/// What the daemon's service and its admin service offer, by name.
Answer copy_regulatory_images(Connection& connection);
Answer store_regulatory_images(Connection& admin_connection, plist::Ref<plist::Value> images);
Answer copy_entitlements(Connection& admin_connection, int32_t pid);

}  // namespace corvane::client
