#include "plist/writer.h"

namespace corvane::plist {

void ByteChain::append_shared(Ref<Data> data) {
  const size_t size = data->bytes().size();
  shared_.push_back({own_.size(), std::move(data)});
  size_ += size;
}

std::vector<std::string_view> ByteChain::pieces() const {
  std::vector<std::string_view> pieces;
  for_each_piece([&pieces](std::string_view piece) { pieces.push_back(piece); });
  return pieces;
}

}  // namespace corvane::plist
