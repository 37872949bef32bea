#include "platform/ipc/notification_server.h"

#include <asio/buffer.hpp>
#include <asio/error.hpp>

#include <new>
#include <optional>
#include <poll.h>
#include <utility>

#include "wire/frame.h"
#include "wire/limits.h"
#include "wire/messages.h"

namespace corvane {

using Socket = ListeningSocket::Socket;

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

/// One subscriber's connection, on which it must not send anything.
class NotificationServer::Subscriber : public std::enable_shared_from_this<Subscriber> {
 public:
  explicit Subscriber(Socket socket) : socket_(std::move(socket)) {}

  /// Closes the connection once the subscriber has disconnected or sent something.
  void watch_for_disconnect();
  /// Whether the connection is closed, or the subscriber has disconnected.
  bool is_disconnected();
  void send(const std::string& frame);
  void close();

 private:
  void write_pending();

  Socket socket_;
  char unwanted_[1];
  std::string pending_;
  int64_t missed_ = 0;
  bool awaits_writable_ = false;
};

// End of file is no disconnect: a subscriber that has closed only its sending side still listens.
bool NotificationServer::Subscriber::is_disconnected() {
  pollfd state{socket_.native_handle(), 0, 0};
  if (poll(&state, 1, 0) == 1 && (state.revents & (POLLHUP | POLLERR)) != 0) close();
  return !socket_.is_open();
}

void NotificationServer::Subscriber::watch_for_disconnect() {
  socket_.async_read_some(
      asio::buffer(unwanted_), [self = shared_from_this()](const std::error_code& error, size_t) {
        if (self->is_disconnected()) return;
        if (!error) return self->close();
        self->socket_.async_wait(Socket::wait_error, [self](const std::error_code&) { self->is_disconnected(); });
      });
}

void NotificationServer::Subscriber::send(const std::string& frame) {
  if (pending_.size() > wire::unread_notifications_limit) {
    ++missed_;
    return;
  }
  if (missed_ != 0) pending_ += frame_of(*wire::make_missed(std::exchange(missed_, 0)));
  pending_ += frame;
  write_pending();
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
  std::error_code ignored;
  socket_.close(ignored);
}

NotificationServer::NotificationServer(std::string path, RequestQueue& queue)
    : queue_(queue),
      listening_(std::move(path), 0666, queue.context(),
                 {[this](Socket socket) {
                    listening_.accept_next();
                    drop_disconnected();
                    add(std::move(socket));
                  },
                  [] {}}) {
  queue_.rearm_with([this] { listening_.rearm(); });
}

NotificationServer::~NotificationServer() {
  queue_.stop();
  for (const auto& subscriber : subscribers_) subscriber->close();
}

void NotificationServer::resume() {
  queue_.submit([this] { listening_.open(); });
}

void NotificationServer::post(const plist::String& name) {
  try {
    send_to_all(name);
  } catch (const std::bad_alloc&) {
    report("out of memory: a notification was lost");
  }
}

void NotificationServer::send_to_all(const plist::String& name) {
  drop_disconnected();
  accept_backlog();
  if (subscribers_.empty()) return;
  const std::string frame = frame_of(*wire::make_notification(name));
  for (const auto& subscriber : subscribers_) subscriber->send(frame);
}

// No more than there may be subscribers: a flood of connections must not keep a post from returning.
void NotificationServer::accept_backlog() {
  for (size_t i = 0; i < limit_; ++i) {
    std::optional<Socket> waiting = listening_.accept_now();
    if (!waiting) break;
    add(std::move(*waiting));
  }
}

void NotificationServer::add(Socket socket) {
  if (subscribers_.size() >= limit_) return refused_report_("refused a subscriber: there are %zu", limit_);
  const auto subscriber = std::make_shared<Subscriber>(std::move(socket));
  subscriber->watch_for_disconnect();
  subscribers_.push_back(subscriber);
}

void NotificationServer::drop_disconnected() {
  subscribers_.remove_if([](const auto& subscriber) { return subscriber->is_disconnected(); });
}

}  // namespace corvane
