#include <gtest/gtest.h>

#include "tests/support/daemon_process.h"
#include "wire/frame_reader.h"
#include "wire/socket_address.h"

namespace corvane::wire {
namespace {

using testing::frame;
using Status = FrameReader::Status;

constexpr uint32_t body_limit = 0x30d40;

// The frames, as bytes again, of a stream that comes in chunks of at most `chunk` bytes, and the status that
// stopped the reader.
std::pair<std::string, Status> read_in_chunks(std::string_view stream, size_t chunk) {
  FrameReader reader(body_limit);
  Frame taken;
  std::pair<std::string, Status> read{"", Status::incomplete};
  while (read.second == Status::incomplete && !stream.empty()) {
    const std::span<char> space = reader.space();
    // Not the whole memory that a header asks for.
    EXPECT_TRUE(!space.empty() && space.size() <= 65536);
    const size_t count = stream.copy(space.data(), std::min(space.size(), chunk));
    stream.remove_prefix(count);
    reader.added(count);
    while ((read.second = reader.next(taken)) == Status::frame)
      read.first += frame(taken.body->bytes(), taken.kind);
  }
  return read;
}

TEST(FrameReader, CutsTheSameFramesWhateverTheChunks) {
  std::string stream = std::string("CV\x01\x07\0\0\0\x02xy", 10) + frame("");
  for (const unsigned size : {4087u, 4088u, 4089u, 65536u, 65537u, 150'000u}) {
    std::string body(size, '\0');
    for (size_t i = 0; i < size; ++i) body[i] = static_cast<char>(i % 251);
    stream += frame(body);
  }
  const std::string last = frame("last");
  for (const unsigned chunk : {1u, 2u, 3u, 7u, 8u, 9u, 100u, 4095u, 4096u, 5000u, 65536u, 1'000'000u}) {
    EXPECT_TRUE(read_in_chunks(stream + last, chunk) == std::pair(stream + last, Status::incomplete)) << chunk;
    EXPECT_TRUE(read_in_chunks(stream + last.substr(0, 11), chunk) == std::pair(stream, Status::incomplete))
        << chunk;
  }
}

TEST(FrameReader, RefusesAStreamAfterTheFramesBeforeTheFault) {
  const std::pair<std::string, Status> headers[] = {
      {std::string("\x43\x57\x01\x01\0\0\0\0", 8), Status::not_ours},
      {std::string("\x63\x56\x01\x01\0\0\0\0", 8), Status::not_ours},
      {std::string("\x43\x56\x02\x01\0\0\0\0", 8), Status::not_ours},
      {std::string("\x43\x56\x01\x01\0\x03\x0d\x41", 8), Status::too_long},
      {std::string("\x43\x56\x01\x01\0\x03\x0d\x40", 8), Status::incomplete},
  };
  for (const auto& [header, status] : headers) {
    EXPECT_EQ(read_in_chunks(frame("first") + header, 4096), std::pair(frame("first"), status));
  }
}

TEST(SocketAddress, ReachesAFolderOfAnyLength) {
  const std::string root = testing::TestPlatform::fresh().root();
  const size_t fitting = sizeof(sockaddr_un::sun_path) - 1 - root.size() - 3;
  const std::string level = "/" + std::string(200, 'd');
  for (const std::string& below :
       {"/" + std::string(fitting, 'd'), "/" + std::string(fitting + 1, 'd'), level + level + level}) {
    std::filesystem::create_directories(root + below);
    const std::string path = root + below + "/s";
    const size_t held_before = testing::open_descriptors();
    const int socket = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    EXPECT_EQ(bind(socket, SocketAddress(path).get(), SocketAddress(path).size()), 0);
    close(socket);
    EXPECT_TRUE(std::filesystem::is_socket(path)) << path;
    EXPECT_EQ(testing::open_descriptors(), held_before);
  }
  EXPECT_EQ(SocketAddress(root + level + "/none/s").error(), ENOENT);
  EXPECT_EQ(SocketAddress(root + level).error(), ENAMETOOLONG);
}

}  // namespace
}  // namespace corvane::wire
