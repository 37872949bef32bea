#include "client/subscription.h"

#include <cerrno>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "client/socket.h"
#include "plist/reader.h"
#include "wire/limits.h"
#include "wire/socket_address.h"

namespace corvane::client {

namespace {

bool decode(const wire::Frame& frame, wire::Notification& notification) {
  if (frame.kind != wire::raw_data_kind) return false;
  const plist::Decoded decoded = plist::decode(frame.body, plist::Containers::immutable);
  const auto* dictionary = plist::cast<plist::Dictionary>(decoded.value.get());
  return dictionary != nullptr && wire::read_notification(*dictionary, notification);
}

}  // namespace

Subscription::Subscription(const std::string& root)
    : path_(wire::socket_path(root, wire::notification_service)), reader_(wire::response_limit) {}

Subscription::~Subscription() {
  if (socket_ >= 0) close(socket_);
}

Outcome Subscription::open(std::string& detail) {
  socket_ = connect_to(path_, default_timeout);
  if (socket_ >= 0) return Outcome::answered;
  detail = path_ + ": " + std::strerror(errno);
  return Outcome::refused;
}

Outcome Subscription::next(wire::Notification& notification, std::string& detail) {
  wire::Frame frame;
  wire::FrameReader::Status status;
  while ((status = reader_.next(frame)) == wire::FrameReader::Status::incomplete) {
    pollfd readable{socket_, POLLIN, 0};
    poll(&readable, 1, -1);
    const std::span<char> buffer = reader_.prepare();
    const ssize_t count = recv(socket_, buffer.data(), buffer.size(), 0);
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
