#include "plist/writer.h"

namespace corvane::plist {

void ByteChain::append_shared(Ref<Data> data) {
  const size_t size = data->bytes().size();
  shared_.push_back({own_.size(), std::move(data)});
  size_ += size;
}

std::vector<std::string_view> ByteChain::pieces() const {
  std::vector<std::string_view> pieces;
  pieces.reserve(2 * shared_.size() + 1);
  const auto add = [&pieces](std::string_view piece) {
    if (!piece.empty()) pieces.push_back(piece);
  };
  const std::string_view own = own_;
  size_t from = 0;
  for (const Shared& shared : shared_) {
    add(own.substr(from, shared.own_before - from));
    add(shared.data->bytes());
    from = shared.own_before;
  }
  add(own.substr(from));
  return pieces;
}

}  // namespace corvane::plist
