#include "platform/ipc/local_connection.h"

#include <asio/error.hpp>

#include <algorithm>
#include <cassert>
#include <string_view>
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
constexpr int write_ticks_over_budget = ticks(wire::write_timeout_over_budget);

bool is_temporary(const std::error_code& error) {
  return error == asio::error::would_block || error == asio::error::interrupted;
}

}  // namespace

LocalConnection::LocalConnection(Socket socket, uint32_t request_limit)
    : socket_(std::move(socket)), reader_(request_limit) {}

void LocalConnection::close() {
  std::error_code ignored;
  socket_.close(ignored);
  output_.clear();
  unsent_ = sent_of_front_ = 0;
}

bool LocalConnection::wants_input() const {
  return resumed_ && input_open_ && unsent_ <= wire::unread_output_limit;
}

// The responses already due are still sent.
void LocalConnection::stop_input(const char* fault) {
  input_open_ = false;
  fault_ = fault;
}

void LocalConnection::fail(const char* fault) {
  failed_ = true;
  fault_ = fault;
}

// ---- requests -----------------------------------------------------------------------------------------

void LocalConnection::receive() {
  const std::span<char> buffer = reader_.prepare();
  std::error_code error;
  const size_t count = socket_.read_some(asio::buffer(buffer.data(), buffer.size()), error);
  if (!error) return reader_.commit(count);
  if (!is_temporary(error)) stop_input(nullptr);
}

bool LocalConnection::serve_next() {
  if (!wants_input()) return false;
  wire::Frame request;
  switch (reader_.next(request)) {
    case wire::FrameReader::Status::frame:
      request_ticks_ = 0;
      respond(request);
      return true;
    case wire::FrameReader::Status::incomplete:
      return false;
    case wire::FrameReader::Status::bad_header:
      stop_input("it sent something other than a frame");
      return false;
    case wire::FrameReader::Status::too_long:
      stop_input("it announced a request over the size limit");
      return false;
  }
  return false;
}

void LocalConnection::respond(const wire::Frame& request) {
  assert(delivery_queue_->is_current() && "requests are delivered on the delivery queue");
  plist::ByteChain body;
  if (!interface_->deliver(*object_, Message{request.kind, request.body}, body)) return;
  const auto length = static_cast<uint32_t>(body.size());
  output_.push_back({wire::encode_header({wire::raw_data_kind, length}), std::move(body)});
  unsent_ += output_.back().size();
}

// ---- responses ----------------------------------------------------------------------------------------

bool LocalConnection::send() {
  if (unsent_ == 0) return false;
  std::error_code error;
  const size_t count = socket_.write_some(gather(), error);
  drop_sent(count);
  if (error && !is_temporary(error)) fail(nullptr);
  return count != 0;
}

LocalConnection::Buffers LocalConnection::gather() {
  size_t count = 0;
  size_t skip = sent_of_front_;
  const auto add = [&](std::string_view piece) {
    const size_t skipped = std::min(skip, piece.size());
    skip -= skipped;
    piece.remove_prefix(skipped);
    if (!piece.empty() && count < buffers_.size()) buffers_[count++] = asio::buffer(piece.data(), piece.size());
  };
  for (const OutgoingFrame& frame : output_) {
    if (count == buffers_.size()) break;
    add({frame.header.data(), frame.header.size()});
    for (const std::string_view piece : frame.body.pieces()) add(piece);
  }
  return {buffers_.data(), buffers_.data() + count};
}

void LocalConnection::drop_sent(size_t count) {
  if (count == 0) return;
  write_ticks_ = 0;
  unsent_ -= count;
  sent_of_front_ += count;
  while (!output_.empty() && sent_of_front_ >= output_.front().size()) {
    sent_of_front_ -= output_.front().size();
    output_.pop_front();
  }
}

// ---- timeouts -----------------------------------------------------------------------------------------

void LocalConnection::update_deadlines(bool over_budget) {
  const bool awaits_request = wants_input() && !over_budget && reader_.inside_frame();
  if (!awaits_request) {
    request_ticks_ = 0;
  } else if (request_ticks_ == 0) {
    request_ticks_ = request_ticks;
  }
  if (unsent_ == 0) {
    write_ticks_ = 0;
  } else if (write_ticks_ == 0) {
    write_ticks_ = write_ticks;
  }
}

void LocalConnection::tick(bool over_budget) {
  if (request_ticks_ > 0 && --request_ticks_ == 0) fail("its request did not arrive whole in time");
  const int last_tick = over_budget ? write_ticks - write_ticks_over_budget : 0;
  if (write_ticks_ > 0 && --write_ticks_ <= last_tick) fail("it did not read its answers");
}

}  // namespace corvane
