#include "platform/ipc/notification_server.h"

#include <asio/buffer.hpp>
#include <asio/error.hpp>

#include <list>
#include <new>
#include <optional>
#include <poll.h>
#include <utility>

#include "platform/ipc/listening_socket.h"
#include "platform/report.h"
#include "wire/frame.h"
#include "wire/limits.h"
#include "wire/messages.h"

namespace corvane {

namespace {

using Socket = ListeningSocket::Socket;

std::string frame_of(const plist::Dictionary& message) {
  plist::ByteChain body;
  plist::encode_binary(message, body, SIZE_MAX);
  const auto header = wire::encode_header({wire::raw_data_kind, static_cast<uint32_t>(body.size())});
  std::string frame(header.begin(), header.end());
  for (const std::string_view piece : body.pieces()) frame += piece;
  return frame;
}

/// One connection of a subscriber, who may say nothing to the daemon.
class Subscriber : public std::enable_shared_from_this<Subscriber> {
 public:
  explicit Subscriber(Socket socket) : socket_(std::move(socket)) {}

  /// Whether the connection is at its end. Closes it where only the other end was closed.
  bool is_gone();
  void watch_for_the_end();
  void send(const std::string& frame);
  void close();

 private:
  void write_unsent();

  Socket socket_;
  char unwanted_[1];
  std::string unsent_;
  int64_t missed_ = 0;
  bool waits_to_write_ = false;
};

// Whoever has only closed its sending side still listens.
bool Subscriber::is_gone() {
  pollfd state{socket_.native_handle(), 0, 0};
  if (poll(&state, 1, 0) == 1 && (state.revents & (POLLHUP | POLLERR)) != 0) close();
  return !socket_.is_open();
}

void Subscriber::watch_for_the_end() {
  socket_.async_read_some(
      asio::buffer(unwanted_), [self = shared_from_this()](const std::error_code& error, size_t) {
        if (self->is_gone()) return;
        if (!error) return self->close();
        self->socket_.async_wait(Socket::wait_error, [self](const std::error_code&) { self->is_gone(); });
      });
}

void Subscriber::send(const std::string& frame) {
  if (unsent_.size() > wire::unread_notifications_limit) {
    ++missed_;
    return;
  }
  if (missed_ != 0) unsent_ += frame_of(*wire::make_missed(std::exchange(missed_, 0)));
  unsent_ += frame;
  write_unsent();
}

void Subscriber::write_unsent() {
  if (waits_to_write_) return;
  std::error_code error;
  unsent_.erase(0, socket_.write_some(asio::buffer(unsent_), error));
  if (error && error != asio::error::would_block && error != asio::error::interrupted) return close();
  if (unsent_.empty()) return;
  socket_.async_wait(Socket::wait_write, [self = shared_from_this()](const std::error_code& failed) {
    self->waits_to_write_ = false;
    if (!failed && self->socket_.is_open()) self->write_unsent();
  });
  waits_to_write_ = true;
}

void Subscriber::close() {
  std::error_code ignored;
  socket_.close(ignored);
}

}  // namespace

/// The subscribers and the socket they come through. Request queue.
class NotificationServer::Hub : public Host, public std::enable_shared_from_this<Hub> {
 public:
  Hub(std::string path, RequestQueue& queue)
      : listening_(std::make_shared<ListeningSocket>(std::move(path), 0666, queue.context())) {}

  void open() { listening_->open(shared_from_this()); }
  void rearm() { listening_->rearm(); }

  void take_newcomer(Socket socket) override {
    listening_->accept_next();
    drop_those_gone();
    add(std::move(socket));
  }

  void post(const plist::String& name) {
    drop_those_gone();
    // No more than there may be subscribers: who keeps connecting must not keep a post from returning.
    for (size_t i = 0; i < limit_; ++i) {
      std::optional<Socket> waiting = listening_->accept_waiting();
      if (!waiting) break;
      add(std::move(*waiting));
    }
    if (subscribers_.empty()) return;
    const std::string frame = frame_of(*wire::make_notification(name));
    for (const auto& subscriber : subscribers_) subscriber->send(frame);
  }

  void shut_down() {
    listening_->shut_down();
    for (const auto& subscriber : subscribers_) subscriber->close();
    subscribers_.clear();
  }

 private:
  void add(Socket socket) {
    if (subscribers_.size() >= limit_) return refused_report_("turned a subscriber away: there are %zu", limit_);
    const auto subscriber = std::make_shared<Subscriber>(std::move(socket));
    subscriber->watch_for_the_end();
    subscribers_.push_back(subscriber);
  }

  void drop_those_gone() {
    subscribers_.remove_if([](const auto& subscriber) { return subscriber->is_gone(); });
  }

  const std::shared_ptr<ListeningSocket> listening_;
  const size_t limit_ = connection_limits().subscribers;
  RateLimitedReport refused_report_;
  std::list<std::shared_ptr<Subscriber>> subscribers_;
};

NotificationServer::NotificationServer(std::string path, RequestQueue& queue)
    : queue_(queue), hub_(std::make_shared<Hub>(std::move(path), queue)) {
  queue_.rearm_with([weak = std::weak_ptr(hub_)] {
    if (const auto hub = weak.lock()) hub->rearm();
  });
}

NotificationServer::~NotificationServer() {
  queue_.submit_and_wait([this] { hub_->shut_down(); });
}

void NotificationServer::resume() {
  queue_.submit([hub = hub_] { hub->open(); });
}

// A notification for which memory runs out is lost to whoever had not got it yet.
void NotificationServer::post(const plist::String& name) {
  try {
    hub_->post(name);
  } catch (const std::bad_alloc&) {
    report("out of memory: a notification was lost");
  }
}

}  // namespace corvane
