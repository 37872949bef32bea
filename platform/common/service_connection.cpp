#include "platform/common/service_connection.h"

#include <cassert>
#include <new>
#include <string>
#include <utility>

#include "platform/report.h"
#include "wire/limits.h"

namespace corvane {

namespace {

// One more than the patience is long, because the first tick may follow at once.
constexpr int patience_ticks = static_cast<int>(wire::patience / LocalConnection::tick_interval) + 1;

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

void LocalConnection::resume() { read_more(); }

void LocalConnection::close(std::string_view reason) {
  if (closed_) return;
  closed_ = true;
  if (!reason.empty()) report("closed a connection: " + std::string(reason));
  std::error_code ignored;
  socket_.close(ignored);
  owner_.connection_closed(*this);
}

// ---- requests -----------------------------------------------------------------------------------------

bool LocalConnection::takes_requests() const { return input_open_ && unsent_ <= wire::unread_output_limit; }

// The answers already due are still sent.
void LocalConnection::take_no_more(std::string_view reason) {
  input_open_ = false;
  close_reason_ = reason;
}

void LocalConnection::read_more() {
  if (reading_ || !takes_requests()) return;
  const std::span<char> space = reader_.space();
  reading_ = true;
  socket_.async_read_some(asio::buffer(space.data(), space.size()),
                          [self = shared_from_this()](const std::error_code& error, size_t count) {
                            self->reading_ = false;
                            if (self->closed_) return;
                            if (error) {
                              self->take_no_more("");
                            } else {
                              self->reader_.added(count);
                              self->owner_.connection_was_active(*self);
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
      case wire::FrameReader::Status::not_ours:
        return take_no_more("it sent something other than a frame");
      case wire::FrameReader::Status::too_long:
        return take_no_more("it announced a request over the size limit");
    }
  }
}

void LocalConnection::respond(const wire::Frame& request) {
  plist::ByteChain body;
  if (!interface_->deliver(*object_, Message{request.kind, request.body}, body)) return;
  const auto length = static_cast<uint32_t>(body.size());
  unsent_ += wire::header_size + body.size();
  output_.push_back({wire::encode_header({wire::raw_data_kind, length}), std::move(body)});
}

// ---- responses ----------------------------------------------------------------------------------------

void LocalConnection::write_more() {
  if (writing_ || unsent_ == 0) return;
  writing_ = true;
  socket_.async_write_some(gather(), [self = shared_from_this()](const std::error_code& error, size_t count) {
    self->writing_ = false;
    if (self->closed_) return;
    if (error) return self->close("");
    self->written(count);
    self->owner_.connection_was_active(*self);
    self->serve();
  });
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
  write_ticks_left_ = 0;
  unsent_ -= count;
  sent_of_front_ += count;
  while (!output_.empty() && sent_of_front_ >= wire::header_size + output_.front().body.size()) {
    sent_of_front_ -= wire::header_size + output_.front().body.size();
    output_.pop_front();
  }
}

// ---- between events -----------------------------------------------------------------------------------

void LocalConnection::settle() {
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
  if (write_ticks_left_ > 0 && --write_ticks_left_ == 0) close("it did not read its answers");
  return request_ticks_left_ > 0 || write_ticks_left_ > 0;
}

}  // namespace corvane
