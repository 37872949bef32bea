#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "platform/descriptor.h"

namespace corvane {

/// The system log, a datagram socket such as /dev/log. Lines go there as syslog(3) would send them, but nothing
/// waits: what the system log does not take at once is not in it. Not thread-safe. Throws std::bad_alloc.
class SystemLog {
 public:
  explicit SystemLog(std::string path) : path_(std::move(path)) {}

  /// Sends one line. `level` is one of syslog(3), `text` the line without time and process.
  void write(int level, std::string_view text);

 private:
  bool send(const std::string& datagram) const;
  bool connect();

  const std::string path_;
  std::optional<Descriptor> socket_;
  bool connected_ = false;
};

}  // namespace corvane
