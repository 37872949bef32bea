// O_NONBLOCK belongs to the open file description, which the parent process and others may use as well. So a
// socket is written to with a flag for the single call, and a pipe or a terminal is opened anew for a description
// of our own. The kernel refuses that where the pipe or terminal belongs to another user. Then there is a flag for
// the single call too, RWF_NOWAIT: pipes know it since Linux 6.4, terminals do not, and what does not know it gets
// no line. poll(2) would not do: another writer may fill the pipe after it, and a terminal may have room for half
// a line.

#include "platform/log/standard_error.h"

#include <cerrno>
#include <fcntl.h>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

namespace corvane {

StandardError::StandardError() {
  struct stat status {};
  if (fstat(STDERR_FILENO, &status) != 0) return;
  if (S_ISSOCK(status.st_mode)) {
    kind_ = Kind::socket;
  } else if (S_ISREG(status.st_mode)) {
    kind_ = Kind::regular_file;
  } else {
    own_.emplace(open("/proc/self/fd/2", O_WRONLY | O_NONBLOCK | O_NOCTTY | O_APPEND | O_CLOEXEC));
  }
}

// The count and the line go in one call, so that a pipe takes both or neither.
void StandardError::write(std::string_view line) {
  std::string text;
  if (dropped_ > 0) {
    if (in_line_) text = "\n";
    text += "[" + std::to_string(dropped_) + (dropped_ == 1 ? " line dropped]\n" : " lines dropped]\n");
  }
  const size_t count_size = text.size();
  text += line;
  const size_t written = write_at_once(text);
  if (written >= count_size) dropped_ = 0;
  if (written == text.size()) return;
  ++dropped_;
  ++dropped_lines_;
}

size_t StandardError::write_at_once(std::string_view text) {
  size_t done = 0;
  while (done < text.size()) {
    const ssize_t written = write_some(text.substr(done));
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) break;
    done += static_cast<size_t>(written);
    in_line_ = text[done - 1] != '\n';
  }
  return done;
}

ssize_t StandardError::write_some(std::string_view text) const {
  switch (kind_) {
    case Kind::socket:
      return send(STDERR_FILENO, text.data(), text.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    case Kind::regular_file:
      return ::write(STDERR_FILENO, text.data(), text.size());
    case Kind::pipe_or_device:
      break;
  }
  if (own_ && own_->is_open()) return ::write(own_->number(), text.data(), text.size());
  const iovec part{const_cast<char*>(text.data()), text.size()};
  return pwritev2(STDERR_FILENO, &part, 1, -1, RWF_NOWAIT);
}

}  // namespace corvane
