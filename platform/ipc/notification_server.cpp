#include "platform/ipc/notification_server.h"

#include <asio/buffer.hpp>
#include <asio/error.hpp>
#include <asio/local/stream_protocol.hpp>

#include <algorithm>
#include <new>
#include <poll.h>
#include <utility>

#include "wire/frame.h"
#include "wire/limits.h"
#include "wire/messages.h"

namespace corvane {

using Socket = asio::local::stream_protocol::socket;

namespace {

std::string frame_of(const plist::Dictionary& message) {
  plist::ByteChain body;
  plist::encode_binary(message, body, SIZE_MAX);
  const auto header = wire::encode_header({wire::raw_data_kind, static_cast<uint32_t>(body.size())});
  std::string frame(header.begin(), header.end());
  for (const std::string_view piece : body.pieces()) frame += piece;
  return frame;
}

}  // namespace

/// One subscriber's connection, on which it can send nothing: its other direction is shut down.
class NotificationServer::Subscriber : public ShareTable::Entry, public std::enable_shared_from_this<Subscriber> {
 public:
  /// `closer` closes the socket, unless it is null.
  Subscriber(Socket socket, SocketCloser* closer) : socket_(std::move(socket)), closer_(closer) {
    std::error_code ignored;
    socket_.non_blocking(true, ignored);
    socket_.shutdown(Socket::shutdown_receive, ignored);
  }

  /// Closes the connection once the subscriber has disconnected.
  void watch_for_disconnect();
  bool is_open() const { return socket_.is_open(); }
  /// Whether the connection is closed. Closes it where the subscriber has disconnected, or had sent urgent data.
  bool is_disconnected();
  /// Whether it will get the frame, or else misses it.
  bool send(const std::string& frame);
  void close();

 private:
  void write_pending();

  Socket socket_;
  SocketCloser* const closer_;
  std::string pending_;
  int64_t missed_ = 0;
  bool awaits_writable_ = false;
};

bool NotificationServer::Subscriber::is_disconnected() {
  if (!socket_.is_open()) return true;
  pollfd state{socket_.native_handle(), POLLPRI, 0};
  if (poll(&state, 1, 0) == 1) close();
  return !socket_.is_open();
}

void NotificationServer::Subscriber::watch_for_disconnect() {
  // A wait may end for an event of a socket that was closed before, so that one is not enough.
  socket_.async_wait(Socket::wait_error, [self = shared_from_this()](const std::error_code&) {
    if (!self->is_disconnected()) self->watch_for_disconnect();
  });
}

bool NotificationServer::Subscriber::send(const std::string& frame) {
  if (pending_.size() > wire::unread_notifications_limit) {
    ++missed_;
    return false;
  }
  if (missed_ != 0) pending_ += frame_of(*wire::make_missed(missed_));
  missed_ = 0;
  pending_ += frame;
  write_pending();
  return true;
}

void NotificationServer::Subscriber::write_pending() {
  if (awaits_writable_) return;
  std::error_code error;
  pending_.erase(0, socket_.write_some(asio::buffer(pending_), error));
  if (error && error != asio::error::would_block && error != asio::error::interrupted) return close();
  if (pending_.empty()) return;
  socket_.async_wait(Socket::wait_write, [self = shared_from_this()](const std::error_code& failed) {
    self->awaits_writable_ = false;
    if (!failed && self->socket_.is_open()) self->write_pending();
  });
  awaits_writable_ = true;
}

void NotificationServer::Subscriber::close() {
  if (!socket_.is_open()) return;
  std::error_code ignored;
  const int socket = socket_.release(ignored);
  if (!ignored) close_socket(socket, closer_);
}

NotificationServer::NotificationServer(std::string path, int handed_over, RequestQueue& queue,
                                       SocketCloser& closer)
    : queue_(queue),
      closer_(closer),
      listening_(std::move(path), 0666, handed_over, queue.context(),
                 {nullptr, [this](int socket) { admit(socket); }, [] {}}),
      shares_(connection_limits().subscribers) {
  counts_.subscribers.limit = connection_limits().subscribers;
  queue_.rearm_with([this] { listening_.rearm(); });
}

NotificationServer::~NotificationServer() {
  queue_.stop();
  for (const auto& subscriber : subscribers_) {
    subscriber->close();
    shares_.remove(*subscriber);
  }
}

void NotificationServer::resume() {
  queue_.submit([this] { listening_.open(); });
}

NotificationCounts NotificationServer::counts() const {
  NotificationCounts counts = counts_;
  const auto is_open = [](const auto& subscriber) { return subscriber->is_open(); };
  counts.subscribers.open = static_cast<size_t>(std::ranges::count_if(subscribers_, is_open));
  return counts;
}

void NotificationServer::post(const plist::String& name) {
  ++counts_.posted;
  try {
    send_to_all(name);
  } catch (const std::bad_alloc&) {
    report("out of memory: a notification was lost");
  }
}

void NotificationServer::send_to_all(const plist::String& name) {
  listening_.accept_backlog();
  drop_disconnected();
  if (subscribers_.empty()) return;
  const std::string frame = frame_of(*wire::make_notification(name));
  for (const auto& subscriber : subscribers_) counts_.missed += subscriber->send(frame) ? 0 : 1;
}

void NotificationServer::admit(int accepted) {
  SocketCloser* const closer = listening_.refuses_descriptors() ? nullptr : &closer_;
  drop_disconnected();
  const PeerIdentity peer = identity_of(accepted);
  Socket socket(queue_.context());
  std::error_code error;
  socket.assign(asio::local::stream_protocol(), accepted, error);
  if (error || !make_room(peer)) {
    if (!error) socket.release(error);
    return close_socket(accepted, closer);
  }
  const auto subscriber = std::make_shared<Subscriber>(std::move(socket), closer);
  shares_.add(*subscriber, peer);
  subscribers_.push_back(subscriber);
  ++counts_.subscribers.accepted;
  subscriber->watch_for_disconnect();
}

bool NotificationServer::make_room(PeerIdentity peer) {
  const ShareTable::Admission admission = shares_.admission_of(peer);
  if (admission.verdict == ShareTable::Verdict::admit) return true;
  refused_report_("closed a subscriber: all %zu places are taken", shares_.size());
  const bool is_refused = admission.verdict == ShareTable::Verdict::refuse;
  counts_.subscribers.count(is_refused ? CloseReason::refused : CloseReason::evicted);
  if (is_refused) return false;
  static_cast<Subscriber&>(*admission.evicted).close();
  drop_disconnected();
  return true;
}

void NotificationServer::drop_disconnected() {
  subscribers_.remove_if([this](const auto& subscriber) {
    if (!subscriber->is_disconnected()) return false;
    shares_.remove(*subscriber);
    return true;
  });
}

}  // namespace corvane
