#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "plist/value.h"

namespace corvane::plist {

/// A sequence of bytes. Large data values in it are shared, not copied, so it comes in pieces.
class ByteChain {
 public:
  void append(std::string_view bytes) {
    own_.append(bytes);
    size_ += bytes.size();
  }
  /// Takes the string over, without a copy, where the chain has no bytes of its own yet.
  void append(std::string&& bytes) {
    if (own_.empty()) {
      size_ += bytes.size();
      own_ = std::move(bytes);
    } else {
      append(std::string_view(bytes));
    }
  }
  void append_shared(Ref<Data> data);

  size_t size() const { return size_; }
  /// Calls `take` with each piece in order. They are valid until the chain changes or dies.
  template <class Take>
  void for_each_piece(Take take) const {
    const auto give = [&take](std::string_view piece) {
      if (!piece.empty()) take(piece);
    };
    const std::string_view own = own_;
    size_t from = 0;
    for (const Shared& shared : shared_) {
      give(own.substr(from, shared.own_before - from));
      give(shared.data->bytes());
      from = shared.own_before;
    }
    give(own.substr(from));
  }
  /// All pieces in order.
  std::vector<std::string_view> pieces() const;

 private:
  struct Shared {
    size_t own_before;  ///< how many of the chain's own bytes come before it
    Ref<Data> data;
  };

  std::string own_;
  std::vector<Shared> shared_;
  size_t size_ = 0;
};

/// Appends the binary encoding, version 1.0. Each equal string, number, date and data value is written once.
/// Data values of `share_from` bytes and more are shared, not copied. Answers null, or in one line what
/// cannot be encoded (a nesting deeper than `max_depth`, an encoding of more than `size_limit` bytes, or what the
/// reader would refuse because long keys or members of sets are repeated too often); what `out` holds has no
/// meaning then. Memory and time are bounded by `size_limit` also where a value repeats itself.
/// Throws std::bad_alloc where memory is out.
Ref<String> encode_binary(const Value& value, ByteChain& out, size_t share_from = 4096,
                          size_t size_limit = std::numeric_limits<size_t>::max());

/// Appends the XML encoding in UTF-8, dictionaries sorted by key. A set, which XML property lists do not
/// know, is written as the element <set>, which our reader takes. Answers null, or in one line what cannot
/// be encoded: a nesting deeper than `max_depth`, a character or a date that XML cannot hold.
/// Throws std::bad_alloc where memory is out.
Ref<String> encode_xml(const Value& value, std::string& out);

}  // namespace corvane::plist
