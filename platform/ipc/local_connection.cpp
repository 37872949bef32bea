#include "platform/ipc/local_connection.h"

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <linux/sockios.h>
#include <string_view>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

#include "wire/limits.h"

namespace corvane {

namespace {

// One more than the timeout is long, because the first tick may follow at once.
constexpr int ticks(std::chrono::milliseconds timeout) {
  return static_cast<int>(timeout / LocalConnection::tick_interval) + 1;
}
constexpr int request_ticks = ticks(wire::request_timeout);
constexpr int write_ticks = ticks(wire::write_timeout);

// What a buffer of the kernel takes besides the bytes in it, and how much of that is only estimated.
constexpr size_t kernel_overhead = 1024;
constexpr size_t estimate_limit = 16 * 1024;

bool is_temporary(int error) { return error == EAGAIN || error == EINTR; }

}  // namespace

LocalConnection::LocalConnection(int socket, const Environment& environment)
    : socket_(socket), environment_(environment), reader_(environment.request_limit) {}

void LocalConnection::close() {
  if (socket_ < 0) return;
  close_socket(std::exchange(socket_, -1), environment_.closer);
  request_.reset();
  output_.clear();
  unsent_ = sent_of_front_ = own_output_ = in_kernel_ = 0;
}

// The responses already due are still sent.
void LocalConnection::stop_input(std::optional<CloseReason> fault) {
  input_open_ = false;
  fault_ = fault;
}

void LocalConnection::fail(std::optional<CloseReason> fault) {
  failed_ = true;
  fault_ = fault;
}

size_t LocalConnection::memory() const {
  const size_t request = request_ ? request_->body->bytes().size() : 0;
  return request + reader_.body_buffer_size() + own_output_ + in_kernel_;
}

// ---- requests -----------------------------------------------------------------------------------------

bool LocalConnection::wants_input() const {
  return resumed_ && input_open_ && !request_ && unsent_ <= wire::unread_output_limit;
}

// Where the kernel does not refuse descriptors, bytes that have some with them are never received.
ssize_t LocalConnection::read_some(std::span<char> buffer) {
  if (environment_.closer != nullptr) {
    const Peeked peeked = peek_for_descriptors(socket_, buffer.data(), buffer.size());
    if (peeked.has_descriptors) fail(CloseReason::descriptors);
    if (peeked.count <= 0 || peeked.has_descriptors) return peeked.count;
    buffer = buffer.first(static_cast<size_t>(peeked.count));
  }
  return recv(socket_, buffer.data(), buffer.size(), MSG_DONTWAIT);
}

void LocalConnection::receive() {
  if (!wants_input()) return;
  const ssize_t count = read_some(input_buffer());
  filled_buffer_ = false;
  if (failed_ || (count < 0 && is_temporary(errno))) return;
  received(count < 0 ? 0 : static_cast<size_t>(count));
}

void LocalConnection::received(size_t count) {
  if (count == 0) return stop_input(std::nullopt);
  filled_buffer_ = count == input_buffer().size();
  reader_.commit(count);
}

bool LocalConnection::has_request() {
  if (request_) return unsent_ <= wire::unread_output_limit;
  if (!reader_.may_have_frame() || !wants_input()) return false;
  wire::Frame frame;
  switch (reader_.next(frame)) {
    case wire::FrameReader::Status::frame:
      request_ = std::move(frame);
      return true;
    case wire::FrameReader::Status::incomplete:
      return false;
    case wire::FrameReader::Status::bad_header:
      stop_input(CloseReason::bad_frame);
      return false;
    case wire::FrameReader::Status::too_long:
      stop_input(CloseReason::too_long);
      return false;
  }
  return false;
}

bool LocalConnection::serve() {
  assert(delivery_queue_->is_current() && "requests are delivered on the delivery queue");
  const wire::Frame request = *std::exchange(request_, std::nullopt);
  request_ticks_ = 0;
  plist::ByteChain body;
  if (!interface_->deliver(*object_, Message{request.kind, request.body}, body)) return false;
  OutgoingFrame& frame = output_.emplace_back();
  frame.header = wire::encode_header({wire::raw_data_kind, static_cast<uint32_t>(body.size())});
  if (SharedAnswers::is_large(body)) {
    frame.shared = environment_.answers.share(std::move(body));
  } else {
    frame.own = std::move(body);
  }
  unsent_ += frame.size();
  own_output_ += frame.own_size();
  return true;
}

// ---- responses ----------------------------------------------------------------------------------------

bool LocalConnection::send() {
  if (unsent_ == 0) return false;
  msghdr message{};
  message.msg_iov = buffers_.data();
  message.msg_iovlen = gather();
  const ssize_t count = sendmsg(socket_, &message, MSG_NOSIGNAL | MSG_DONTWAIT);
  if (count < 0 && !is_temporary(errno)) fail(std::nullopt);
  if (count > 0) drop_sent(static_cast<size_t>(count));
  return count > 0;
}

size_t LocalConnection::gather() {
  size_t count = 0;
  size_t skip = sent_of_front_;
  const auto add = [&](std::string_view piece) {
    const size_t skipped = std::min(skip, piece.size());
    skip -= skipped;
    piece.remove_prefix(skipped);
    if (piece.empty() || count == buffers_.size()) return;
    buffers_[count++] = {const_cast<char*>(piece.data()), piece.size()};
  };
  for (const OutgoingFrame& frame : output_) {
    if (count == buffers_.size()) break;
    add({frame.header.data(), frame.header.size()});
    frame.body().for_each_piece(add);
  }
  return count;
}

void LocalConnection::drop_sent(size_t count) {
  write_ticks_ = 0;
  unsent_ -= count;
  sent_of_front_ += count;
  in_kernel_ += count + kernel_overhead;
  if (in_kernel_ > estimate_limit) measure_kernel_buffer();
  while (!output_.empty() && sent_of_front_ >= output_.front().size()) {
    sent_of_front_ -= output_.front().size();
    own_output_ -= output_.front().own_size();
    output_.pop_front();
  }
}

void LocalConnection::measure_kernel_buffer() {
  int unread = 0;
  if (in_kernel_ == 0 || ioctl(socket_, SIOCOUTQ, &unread) != 0) return;
  const size_t before = std::exchange(in_kernel_, static_cast<size_t>(unread));
  // The client has read some of it. Where only the estimate was too large, the longer timeout does no harm.
  if (in_kernel_ < before) write_ticks_ = 0;
}

// ---- timeouts -----------------------------------------------------------------------------------------

void LocalConnection::update_deadlines(bool over_budget) {
  const bool awaits_request = wants_input() && reader_.inside_frame();
  if (!awaits_request) {
    request_ticks_ = 0;
  } else if (request_ticks_ == 0) {
    request_ticks_ = request_ticks;
  }
  const bool awaits_reader = unsent_ != 0 || (over_budget && in_kernel_ != 0);
  if (!awaits_reader) {
    write_ticks_ = 0;
  } else if (write_ticks_ == 0) {
    write_ticks_ = write_ticks;
  }
}

void LocalConnection::tick() {
  if (request_ticks_ > 0 && --request_ticks_ == 0) fail(CloseReason::timeout);
  if (write_ticks_ > 0 && --write_ticks_ == 0) fail(CloseReason::not_reading);
}

}  // namespace corvane
