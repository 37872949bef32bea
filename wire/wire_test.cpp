#include <gtest/gtest.h>

#include "tests/support/daemon_process.h"
#include "wire/frame_reader.h"
#include "wire/socket_address.h"

namespace corvane::wire {
namespace {

using testing::frame;
using Status = FrameReader::Status;

constexpr uint32_t body_limit = 0x30d40;

// The frames, as bytes again, of a stream that comes in chunks, and the status that stopped the reader.
std::pair<std::string, Status> read_in_chunks(std::string_view stream, size_t chunk) {
  FrameReader reader(body_limit);
  Frame taken;
  size_t come = 0;
  std::pair<std::string, Status> read{"", Status::incomplete};
  while (read.second == Status::incomplete && !stream.empty()) {
    const std::span<char> buffer = reader.prepare();
    // Not the whole memory that a header asks for.
    EXPECT_TRUE(!buffer.empty() && buffer.size() <= std::max<size_t>(65536, come));
    const size_t count = stream.copy(buffer.data(), std::min(buffer.size(), chunk));
    stream.remove_prefix(count);
    reader.commit(count);
    come += count;
    while ((read.second = reader.next(taken)) == Status::frame)
      read.first += frame(taken.body->bytes(), taken.kind);
  }
  return read;
}

TEST(FrameReader, CutsTheSameFramesWhateverTheChunks) {
  std::string body, stream = std::string("CV\x01\x07\0\0\0\x02xy", 10) + frame("");
  while (body.size() < 150'000) body += static_cast<char>(body.size() % 251);
  for (const unsigned size : {4087u, 4088u, 4089u, 65536u, 65537u, 150'000u})
    stream += frame(body.substr(0, size));
  const std::string cut = stream + frame("cut").substr(0, 10);
  for (const unsigned chunk : {1u, 2u, 3u, 7u, 8u, 9u, 100u, 4095u, 4096u, 5000u, 65536u, 1'000'000u})
    EXPECT_TRUE(read_in_chunks(cut, chunk) == std::pair(stream, Status::incomplete)) << chunk;
}

TEST(FrameReader, RefusesAStreamAfterTheFramesBeforeTheFault) {
  const std::string first = frame("first"), length("\0\x03\x0d\x41", 4);
  EXPECT_EQ(read_in_chunks(first + "cV\1\1" + length, 9), std::pair(first, Status::bad_header));
  EXPECT_EQ(read_in_chunks(first + "CV\2\1" + length, 9), std::pair(first, Status::bad_header));
  EXPECT_EQ(read_in_chunks(first + "CV\1\1" + length, 9), std::pair(first, Status::too_long));
  EXPECT_EQ(read_in_chunks(first + frame(std::string(body_limit, 'b')), 9).second, Status::incomplete);
}

TEST(SocketAddress, ReachesAFolderOfAnyLength) {
  const std::string root = testing::TestPlatform::fresh().root() + "/";
  const size_t fitting = sizeof(sockaddr_un::sun_path) - 1 - root.size() - 2;
  const size_t held_before = testing::open_descriptors();
  const std::string level = std::string(200, 'd') + "/";
  for (const std::string& below :
       {std::string(fitting, 'd'), std::string(fitting + 1, 'd'), level + level + level}) {
    std::filesystem::create_directories(root + below);
    const std::string path = root + below + "/s";
    const int socket = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    EXPECT_EQ(bind(socket, SocketAddress(path).get(), SocketAddress(path).size()), 0);
    close(socket);
    EXPECT_TRUE(std::filesystem::is_socket(path)) << path;
  }
  EXPECT_EQ(SocketAddress(root + level + "none/s").error(), ENOENT);
  EXPECT_EQ(SocketAddress(root + std::string(200, 'd')).error(), ENAMETOOLONG);
  EXPECT_EQ(testing::open_descriptors(), held_before);
}

}  // namespace
}  // namespace corvane::wire
