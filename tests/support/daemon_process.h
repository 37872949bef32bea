#pragma once

#include <csignal>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <sys/resource.h>
#include <sys/types.h>
#include <vector>

#include "plist/value.h"
#include "wire/frame.h"
#include "wire/messages.h"

/// For tests that drive the real daemon over its sockets. Everything that waits here has a deadline, one that
/// only a broken daemon meets.
namespace corvane::testing {

using Lines = std::vector<std::string>;
using Environment = std::map<std::string, std::string>;

/// A root with the folders that a device's image has, and a simulated device's profile beside it, in a
/// temporary folder that goes with it.
class DeviceRoot {
 public:
  /// The root is the folder `below` of the temporary one.
  explicit DeviceRoot(const std::string& below = "/root");
  ~DeviceRoot();

  std::string at(std::string_view path) const { return root_ + std::string(path); }
  std::string socket(std::string_view service) const;
  std::string profile() const { return base_ + "/profile.plist"; }
  /// The simulated device below this root, with its log on standard error.
  Environment environment() const;
  /// The temporary folder's whole content, names and modes.
  Lines listing() const;

 private:
  std::string base_;
  std::string root_;
};

/// One run of corvaned.
class DaemonProcess {
 public:
  /// Starts it. Of the CORVANE_ variables it has those of `environment` only; a `descriptors` that is not 0
  /// limits its RLIMIT_NOFILE.
  explicit DaemonProcess(const Environment& environment, rlim_t descriptors = 0);
  /// In the root's environment; returns when it serves. A test that waits in vain fails.
  explicit DaemonProcess(const DeviceRoot& root, rlim_t descriptors = 0);
  /// Asks it to end where it still runs. A test whose daemon then ends in any way but status 0 fails: that is
  /// how sanitizers tell of races and leaks.
  ~DaemonProcess();

  /// Sends the signal where there is one, and waits for the end: the exit status, or minus the signal that
  /// ended it.
  int end(int signal = 0);
  pid_t pid() const { return pid_; }
  std::string standard_error() const;
  /// What was logged, without the head of each line.
  Lines log() const;

  size_t descriptors() const;
  size_t resident_bytes() const;

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
  ~RawClient();
  RawClient(const RawClient&) = delete;
  RawClient& operator=(const RawClient&) = delete;

  /// False where the daemon has closed the connection.
  bool send(std::string_view bytes);
  /// Says that no more will be sent.
  void finish();
  /// The next response; null where the connection ends instead or nothing comes.
  plist::Ref<plist::Dictionary> response();
  /// `response` as text.
  std::string answer();
  /// Sends a request and answers its `answer`.
  std::string ask(std::string_view selector);
  /// Whether the connection ends without another byte.
  bool ends();
  /// Whether there is something to read, an end included, or will be within `milliseconds`.
  bool has_news(int milliseconds = 0) const;

 private:
  bool receive(char* bytes, size_t count);

  const int socket_;
};

std::string frame(std::string_view body, uint8_t kind = wire::raw_data_kind);
std::string frame(const plist::Value& value);
/// The frame of a request for a method.
std::string request(std::string_view selector);
/// The text of the response that refuses the request `selector` with code 1.
std::string refusal(std::string_view selector);

}  // namespace corvane::testing
