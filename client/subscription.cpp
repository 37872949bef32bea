#include "client/subscription.h"

#include <climits>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>

#include "plist/reader.h"
#include "wire/limits.h"
#include "wire/socket_address.h"

namespace corvane::client {

namespace {

using std::chrono::steady_clock;

// What is left of the timeout, for poll(2).
int poll_timeout(steady_clock::time_point start, std::chrono::milliseconds timeout) {
  if (timeout == Subscription::no_timeout) return -1;
  const auto left = timeout - std::chrono::floor<std::chrono::milliseconds>(steady_clock::now() - start);
  return static_cast<int>(std::clamp<int64_t>(left.count(), 0, INT_MAX));
}

bool decode(const wire::Frame& frame, wire::Notification& notification) {
  if (frame.kind != wire::raw_data_kind) return false;
  const plist::Decoded decoded = plist::decode(frame.body, plist::Containers::immutable);
  const auto* dictionary = plist::cast<plist::Dictionary>(decoded.value.get());
  return dictionary != nullptr && wire::read_notification(*dictionary, notification);
}

}  // namespace

Subscription::Subscription(const std::string& root)
    : path_(wire::socket_path(root, wire::notification_service)), reader_(wire::response_limit) {}

Outcome Subscription::open(std::string& detail) {
  socket_ = connect_to(path_, default_timeout);
  if (socket_) return Outcome::answered;
  const int error = errno;
  detail = refusal_text(path_, error);
  return refusal(error);
}

Outcome Subscription::next(wire::Notification& notification, std::string& detail,
                           std::chrono::milliseconds timeout) {
  const auto start = steady_clock::now();
  wire::Frame frame;
  wire::FrameReader::Status status;
  while ((status = reader_.next(frame)) == wire::FrameReader::Status::incomplete) {
    pollfd readable{descriptor(), POLLIN, 0};
    if (poll(&readable, 1, poll_timeout(start, timeout)) == 0) {
      detail = "no notification in time";
      return Outcome::timed_out;
    }
    const std::span<char> buffer = reader_.prepare();
    const ssize_t count = recv(descriptor(), buffer.data(), buffer.size(), 0);
    if (count < 0 && (errno == EAGAIN || errno == EINTR)) continue;
    if (count <= 0) {
      detail = count == 0 ? "the daemon closed the connection" : std::strerror(errno);
      return Outcome::closed;
    }
    reader_.commit(static_cast<size_t>(count));
  }
  if (status == wire::FrameReader::Status::frame && decode(frame, notification)) return Outcome::answered;
  detail = "what came is no notification";
  return Outcome::bad_answer;
}

}  // namespace corvane::client
