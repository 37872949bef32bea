#include <gtest/gtest.h>

#include "tests/support/daemon_process.h"
#include "wire/frame_reader.h"

namespace corvane::wire {
namespace {

using testing::frame;

// The frames, as bytes again, of a stream that comes in chunks.
std::string read_in_chunks(std::string_view stream, size_t chunk) {
  FrameReader reader(200'000);
  Frame taken;
  size_t come = 0;
  std::string read;
  while (!stream.empty()) {
    const std::span<char> buffer = reader.prepare();
    // Not the whole memory that a header asks for.
    EXPECT_TRUE(!buffer.empty() && buffer.size() <= std::max<size_t>(65536, come));
    const size_t count = stream.copy(buffer.data(), std::min(buffer.size(), chunk));
    stream.remove_prefix(count);
    reader.commit(count);
    come += count;
    while (reader.may_have_frame() && reader.next(taken) == FrameReader::Status::frame) {
      read += frame(taken.body->bytes(), taken.kind);
    }
  }
  return read;
}

// Bad headers are tried by fuzz/wire.cpp, lengths at the limit by tests/service_test.cpp.
TEST(FrameReader, CutsTheSameFramesWhateverTheChunks) {
  std::string body, stream = std::string("CV\x01\x07\0\0\0\x02xy", 10) + frame("");
  while (body.size() < 150'000) body += static_cast<char>(body.size() % 251);
  for (const unsigned size : {4087u, 4088u, 4089u, 65536u, 65537u, 150'000u})
    stream += frame(body.substr(0, size));
  const std::string cut = stream + frame("cut").substr(0, 10);
  for (const unsigned chunk : {1u, 2u, 3u, 7u, 8u, 9u, 100u, 4095u, 4096u, 5000u, 65536u, 1'000'000u})
    EXPECT_TRUE(read_in_chunks(cut, chunk) == stream) << chunk;
}

}  // namespace
}  // namespace corvane::wire
