#pragma once

#include <csignal>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include "plist/describe.h"
#include "tests/support/test_platform.h"
#include "wire/frame.h"
#include "wire/messages.h"

/// For tests that drive the real daemon over its sockets. Everything that waits here has a deadline, one that
/// only a broken daemon meets.
namespace corvane::testing {

using Lines = std::vector<std::string>;
using Environment = std::map<std::string, std::string>;

/// A root with the folders that a device's image has, `below` a temporary folder that goes with it, and a
/// simulated device's profile beside it.
class DeviceRoot {
 public:
  explicit DeviceRoot(const std::string& below = "/root");
  ~DeviceRoot() { std::filesystem::remove_all(base_); }

  std::string at(std::string_view path) const { return root_ + std::string(path); }
  std::string socket(std::string_view service) const { return at("/run/corvaned/") + std::string(service); }
  std::string profile() const { return base_ + "/profile.plist"; }
  /// The simulated device below this root, with its log on standard error.
  Environment environment() const;
  Lines listing() const;  ///< the temporary folder's whole content, names and modes

 private:
  const std::string base_;
  const std::string root_;
};

/// One run of corvaned.
class DaemonProcess {
 public:
  /// Starts it, with the CORVANE_ variables of `environment` only and, unless it is 0, a limit of descriptors.
  explicit DaemonProcess(const Environment& environment, rlim_t descriptors = 0);
  /// In the root's environment; returns when it serves. A test that waits in vain fails.
  explicit DaemonProcess(const DeviceRoot& root, rlim_t descriptors = 0);
  /// Asks it to end where it still runs. A test whose daemon then ends in any way but status 0 fails: that is
  /// how sanitizers tell of races and leaks.
  ~DaemonProcess();

  /// Sends the signal, if any, and waits: the exit status, or minus the signal that ended the daemon.
  int end(int signal = 0);
  pid_t pid() const { return pid_; }
  std::string standard_error() const { return read_file("/proc/self/fd/" + std::to_string(error_file_)); }
  Lines log() const;  ///< what was logged, without the head of each line
  size_t descriptors() const { return open_descriptors(std::to_string(pid_)); }

 private:
  const int error_file_;
  pid_t pid_;
};

/// Asks again and again until the answer is yes, or until the deadline.
bool eventually(const std::function<bool()>& question);

/// A client that sends what bytes it likes.
class RawClient {
 public:
  explicit RawClient(const std::string& socket);
  ~RawClient() { close(socket_); }
  RawClient(const RawClient&) = delete;
  RawClient& operator=(const RawClient&) = delete;

  bool send(std::string_view bytes);  ///< false where the daemon has closed the connection
  /// Says that no more will be sent.
  void finish() { shutdown(socket_, SHUT_WR); }
  /// The next response, as it is or as text; null where the connection ends instead or nothing comes.
  plist::Ref<plist::Dictionary> response();
  std::string answer() { return plist::describe(response().get()); }
  std::string ask(std::string_view selector);  ///< sends a request and answers its `answer`
  bool ends();                                 ///< whether the connection ends without another byte
  /// Whether there is something to read, an end included, or will be within `milliseconds`.
  bool has_news(int milliseconds = 0) const;
  int descriptor() const { return socket_; }

 private:
  const int socket_;
};

std::string frame(std::string_view body, uint8_t kind = wire::raw_data_kind);
std::string frame(const plist::Value& value);
/// The frame of a request for a method.
inline std::string request(std::string_view selector) { return frame(*wire::make_request(selector)); }
/// The text of the response that refuses the request `selector` with code 1.
std::string refusal(std::string_view selector);

}  // namespace corvane::testing
