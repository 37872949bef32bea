#include "wire/frame_reader.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace corvane::wire {

using plist::MutableData;
using plist::Ref;

std::span<char> FrameReader::prepare() {
  if (!body_wants_bytes()) {
    if (input_begin_ == input_end_) input_begin_ = input_end_ = 0;
    return std::span(input_).subspan(input_end_);
  }
  // A body that has outgrown the input buffer is read to where it belongs.
  const size_t capacity = body_->bytes().size();
  if (body_size_ == capacity) {
    Ref<MutableData> larger = MutableData::create(std::min<size_t>(header_.length, 2 * capacity));
    std::memcpy(larger->mutable_bytes(), body_->mutable_bytes(), body_size_);
    body_ = std::move(larger);
  }
  return {body_->mutable_bytes() + body_size_, body_->bytes().size() - body_size_};
}

void FrameReader::commit(size_t count) {
  if (body_wants_bytes()) {
    body_size_ += count;
  } else {
    input_end_ += count;
  }
}

FrameReader::Status FrameReader::next(Frame& frame) {
  if (!body_) {
    if (!take_header()) return Status::incomplete;
    const std::optional<FrameHeader> header = decode_header(header_bytes_);
    if (!header) return Status::bad_header;
    if (header->length > body_limit_) return Status::too_long;
    header_ = *header;
    body_ = MutableData::create(std::min<size_t>(header_.length, first_body_buffer));
    body_size_ = 0;
  }
  take_body();
  if (body_size_ < header_.length) return Status::incomplete;
  frame = {header_.kind, MutableData::freeze(std::move(body_))};
  header_size_ = 0;
  return Status::frame;
}

bool FrameReader::take_header() {
  const size_t count = std::min(header_size - header_size_, input_end_ - input_begin_);
  std::memcpy(header_bytes_.data() + header_size_, input_.data() + input_begin_, count);
  header_size_ += count;
  input_begin_ += count;
  return header_size_ == header_size;
}

void FrameReader::take_body() {
  const size_t count = std::min(body_->bytes().size() - body_size_, input_end_ - input_begin_);
  std::memcpy(body_->mutable_bytes() + body_size_, input_.data() + input_begin_, count);
  body_size_ += count;
  input_begin_ += count;
}

}  // namespace corvane::wire
