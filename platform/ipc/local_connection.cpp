#include "platform/ipc/local_connection.h"

#include <asio/error.hpp>

#include <cassert>
#include <new>
#include <string_view>
#include <utility>

#include "wire/limits.h"

namespace corvane {

namespace {

// One more than the patience is long, because the first tick may follow at once.
constexpr int ticks(std::chrono::milliseconds patience) {
  return static_cast<int>(patience / LocalConnection::tick_interval) + 1;
}
constexpr int patience_ticks = ticks(wire::patience);
constexpr int patience_lost_in_need = patience_ticks - ticks(wire::patience_in_need);

}  // namespace

LocalConnection::LocalConnection(Socket socket, RequestQueue& queue, uint32_t request_limit,
                                 ConnectionOwner& owner)
    : silent_since(std::chrono::steady_clock::now()),
      socket_(std::move(socket)),
      queue_(queue),
      owner_(owner),
      reader_(request_limit) {}

void LocalConnection::set_delivery_queue([[maybe_unused]] WorkQueue& queue) {
  assert(&queue == &queue_ && "connections live on the request queue");
}

void LocalConnection::resume() { serve(); }

void LocalConnection::close(const char* reason) {
  if (closed_) return;
  closed_ = true;
  std::error_code ignored;
  socket_.close(ignored);
  owner_.output_shrank(unsent_ + sent_of_front_);
  // Not with the connection, which what still waits for the socket keeps for a while.
  output_.clear();
  owner_.connection_closed(*this, reason);
}

// ---- requests -----------------------------------------------------------------------------------------

bool LocalConnection::takes_requests() const {
  return input_open_ && unsent_ <= wire::unread_output_limit && owner_.takes_requests();
}

// The answers already due are still sent.
void LocalConnection::take_no_more(const char* reason) {
  input_open_ = false;
  close_reason_ = reason;
}

void LocalConnection::read_more() {
  if (reading_ || !takes_requests()) return;
  const std::span<char> buffer = reader_.prepare();
  reading_ = true;
  socket_.async_read_some(asio::buffer(buffer.data(), buffer.size()),
                          [self = shared_from_this()](const std::error_code& error, size_t count) {
                            self->reading_ = false;
                            if (self->closed_) return;
                            if (error) {
                              self->take_no_more(nullptr);
                            } else {
                              self->reader_.commit(count);
                            }
                            self->serve();
                          });
}

void LocalConnection::serve() {
  try {
    serve_requests();
    write_more();
    settle();
  } catch (const std::bad_alloc&) {
    close("out of memory");
  }
}

void LocalConnection::serve_requests() {
  wire::Frame request;
  while (takes_requests()) {
    switch (reader_.next(request)) {
      case wire::FrameReader::Status::frame:
        request_ticks_left_ = 0;
        respond(request);
        break;
      case wire::FrameReader::Status::incomplete:
        return;
      case wire::FrameReader::Status::bad_header:
        return take_no_more("it sent something other than a frame");
      case wire::FrameReader::Status::too_long:
        return take_no_more("it announced a request over the size limit");
    }
  }
}

void LocalConnection::respond(const wire::Frame& request) {
  plist::ByteChain body;
  if (!interface_->deliver(*object_, Message{request.kind, request.body}, body)) return;
  owner_.connection_was_active(*this);
  const size_t size = wire::header_size + body.size();
  const auto length = static_cast<uint32_t>(body.size());
  output_.push_back({wire::encode_header({wire::raw_data_kind, length}), std::move(body)});
  unsent_ += size;
  owner_.output_grew(size);
}

// ---- responses ----------------------------------------------------------------------------------------

void LocalConnection::write_more() {
  if (waits_to_write_ || unsent_ == 0) return;
  std::error_code error;
  written(socket_.write_some(gather(), error));
  if (error && error != asio::error::would_block && error != asio::error::interrupted) return close();
  if (unsent_ == 0) return;
  socket_.async_wait(Socket::wait_write, [self = shared_from_this()](const std::error_code& failed) {
    self->waits_to_write_ = false;
    if (self->closed_) return;
    if (failed) return self->close();
    self->serve();
  });
  waits_to_write_ = true;
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

void LocalConnection::written(size_t count) {
  if (count == 0) return;
  owner_.connection_was_active(*this);
  write_ticks_left_ = 0;
  unsent_ -= count;
  sent_of_front_ += count;
  while (!output_.empty() && sent_of_front_ >= wire::header_size + output_.front().body.size()) {
    const size_t size = wire::header_size + output_.front().body.size();
    sent_of_front_ -= size;
    output_.pop_front();
    owner_.output_shrank(size);
  }
}

// ---- between events -----------------------------------------------------------------------------------

void LocalConnection::settle() {
  if (closed_) return;
  if (!input_open_ && unsent_ == 0) return close(close_reason_);

  const bool waits_for_request = takes_requests() && reader_.inside_frame();
  if (!waits_for_request) {
    request_ticks_left_ = 0;
  } else if (request_ticks_left_ == 0) {
    request_ticks_left_ = patience_ticks;
  }
  if (unsent_ == 0) {
    write_ticks_left_ = 0;
  } else if (write_ticks_left_ == 0) {
    write_ticks_left_ = patience_ticks;
  }
  if (request_ticks_left_ != 0 || write_ticks_left_ != 0) owner_.connection_has_deadline();
  read_more();
}

bool LocalConnection::tick() {
  if (request_ticks_left_ > 0 && --request_ticks_left_ == 0) close("its request did not arrive whole in time");
  const int patience_lost = owner_.needs_room() ? patience_lost_in_need : 0;
  if (write_ticks_left_ > 0 && --write_ticks_left_ <= patience_lost) close("it did not read its answers");
  return request_ticks_left_ > 0 || write_ticks_left_ > 0;
}

}  // namespace corvane
