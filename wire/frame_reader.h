#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include "plist/value.h"
#include "wire/frame.h"

namespace corvane::wire {

struct Frame {
  uint8_t kind = 0;
  plist::Ref<plist::Data> body;
};

/// Cuts a stream of bytes into frames. The buffer for a body grows with the bytes that have come: it is never
/// larger than 64 KiB or twice their number, whatever length the header announces. Throws std::bad_alloc where
/// memory is out.
class FrameReader {
 public:
  enum class Status {
    frame,       ///< one frame was taken
    incomplete,  ///< more bytes are needed
    bad_header,  ///< wrong magic or version; the stream is of no further use
    too_long,    ///< a body over the limit; the stream is of no further use
  };

  explicit FrameReader(uint32_t body_limit) : body_limit_(body_limit) {}

  /// The buffer for the next bytes of the stream; not empty once `next` has answered `incomplete`.
  std::span<char> prepare();
  /// Says that the first `count` bytes of that buffer have been filled.
  void commit(size_t count);
  /// Whether `next` has anything to look at; where it has not, it answers `incomplete`.
  bool may_have_frame() const { return input_begin_ != input_end_ || (body_ && body_size_ == header_.length); }
  /// Takes the next frame.
  Status next(Frame& frame);
  /// Whether a part of a frame has come.
  bool inside_frame() const { return header_size_ != 0; }
  /// The bytes of the buffer for the body of that frame.
  size_t body_buffer_size() const { return body_ ? body_->bytes().size() : 0; }

 private:
  static constexpr size_t first_body_buffer = 64 * 1024;

  bool body_wants_bytes() const { return body_ && input_begin_ == input_end_; }
  bool take_header();
  void take_body();

  const uint32_t body_limit_;

  // Bytes that have come and are not yet part of a frame: input_[input_begin_, input_end_).
  std::array<char, 4096> input_;
  size_t input_begin_ = 0;
  size_t input_end_ = 0;

  std::array<char, header_size> header_bytes_{};
  size_t header_size_ = 0;
  FrameHeader header_{};
  plist::Ref<plist::MutableData> body_;
  size_t body_size_ = 0;
};

}  // namespace corvane::wire
