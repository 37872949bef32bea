#include "platform/ipc/shared_answers.h"

#include <utility>

namespace corvane {

namespace {

// What a public client can have echoed to it is smaller, so that only stored data is ever compared.
constexpr size_t large_answer = 256 * 1024;

// Equal values are encoded into equal pieces.
bool have_equal_bytes(const plist::ByteChain& a, const plist::ByteChain& b) {
  return a.size() == b.size() && a.pieces() == b.pieces();
}

}  // namespace

bool SharedAnswers::is_large(const plist::ByteChain& answer) { return answer.size() >= large_answer; }

SharedAnswers::Answer SharedAnswers::share(plist::ByteChain answer) {
  std::erase_if(under_way_, [](const auto& each) { return each.expired(); });
  for (const auto& each : under_way_) {
    Answer known = each.lock();
    if (have_equal_bytes(*known, answer)) return known;
  }
  auto owned = std::make_unique<const plist::ByteChain>(std::move(answer));
  const size_t size = owned->size();
  bytes_ += size;  // before what takes it off again, which runs also where memory is out
  const Answer shared(owned.release(), [this, size](const plist::ByteChain* chain) {
    bytes_ -= size;
    delete chain;
  });
  under_way_.push_back(shared);
  return shared;
}

}  // namespace corvane
