#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <sys/socket.h>
#include <unistd.h>

#include "tests/support/daemon_process.h"
#include "tests/support/test_platform.h"
#include "wire/frame_reader.h"
#include "wire/socket_address.h"

namespace corvane::wire {
namespace {

using testing::frame;
using Status = FrameReader::Status;

constexpr uint32_t body_limit = 200'000;

// The frames, as bytes again, of a stream that comes in chunks of at most `chunk` bytes; `end` is the status
// that stopped the reader.
std::string read_in_chunks(std::string_view stream, size_t chunk, Status& end) {
  FrameReader reader(body_limit);
  Frame taken;
  std::string frames;
  end = Status::incomplete;
  while (end == Status::incomplete && !stream.empty()) {
    const std::span<char> space = reader.space();
    const size_t count = std::min({space.size(), chunk, stream.size()});
    if (count == 0) throw std::logic_error("a reader that wants more leaves no space for it");
    std::memcpy(space.data(), stream.data(), count);
    stream.remove_prefix(count);
    reader.added(count);
    while ((end = reader.next(taken)) == Status::frame) frames += frame(taken.body->bytes(), taken.kind);
  }
  return frames;
}

TEST(FrameReader, CutsTheSameFramesWhateverTheChunks) {
  std::string stream = std::string("CV\x01\x07\0\0\0\x02xy", 10) + frame("");
  for (const unsigned size : {4087u, 4088u, 4089u, 65536u, 65537u, 150'000u}) {
    std::string body(size, '\0');
    for (size_t i = 0; i < size; ++i) body[i] = static_cast<char>(i % 251);
    stream += frame(body) + frame("next");
  }
  const size_t last = stream.size() - frame("next").size();
  for (const unsigned chunk : {1u, 2u, 3u, 7u, 8u, 9u, 100u, 4095u, 4096u, 5000u, 65536u, 1'000'000u}) {
    Status end;
    EXPECT_TRUE(read_in_chunks(stream, chunk, end) == stream) << "in chunks of " << chunk;
    EXPECT_EQ(end, Status::incomplete);
    EXPECT_TRUE(read_in_chunks(stream.substr(0, stream.size() - 1), chunk, end) == stream.substr(0, last));
  }
}

TEST(FrameReader, RefusesAStreamAfterTheFramesBeforeTheFault) {
  const std::string first = frame("first");
  const auto limit = encode_header({raw_data_kind, body_limit});
  const auto beyond = encode_header({raw_data_kind, body_limit + 1});
  const std::pair<std::string, Status> headers[] = {
      {std::string("\x43\x57\x01\x01\0\0\0\0", 8), Status::not_ours},
      {std::string("\x63\x56\x01\x01\0\0\0\0", 8), Status::not_ours},
      {std::string("\x43\x56\x02\x01\0\0\0\0", 8), Status::not_ours},
      {std::string("\x43\x56\x01\x01\xff\xff\xff\xff", 8), Status::too_long},
      {std::string(beyond.begin(), beyond.end()), Status::too_long},
      {std::string(limit.begin(), limit.end()), Status::incomplete},
  };
  for (const auto& [header, status] : headers) {
    for (const size_t chunk : {size_t{1}, size_t{4096}}) {
      Status end;
      EXPECT_EQ(read_in_chunks(first + header, chunk, end), first);
      EXPECT_EQ(end, status);
    }
  }
}

TEST(FrameReader, AHeaderAloneCostsNothing) {
  FrameReader reader(1u << 30);
  const auto header = encode_header({raw_data_kind, 1u << 30});
  std::copy(header.begin(), header.end(), reader.space().begin());
  reader.added(header.size());
  Frame taken;
  EXPECT_EQ(reader.next(taken), Status::incomplete);
  EXPECT_LE(reader.space().size(), 65536u);
}

TEST(SocketAddress, ReachesAFolderOfAnyLength) {
  const std::string root = testing::TestPlatform::fresh().root();
  const size_t fitting = sizeof(sockaddr_un::sun_path) - 1 - root.size() - 3;
  const std::string level = "/" + std::string(200, 'd');
  for (const std::string& below :
       {"/" + std::string(fitting, 'd'), "/" + std::string(fitting + 1, 'd'), level + level + level}) {
    std::filesystem::create_directories(root + below);
    const std::string path = root + below + "/s";
    const int socket = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const size_t held_before = testing::open_descriptors();
    {
      const SocketAddress address(path);
      EXPECT_EQ(bind(socket, address.get(), address.size()), 0);
    }
    EXPECT_TRUE(std::filesystem::is_socket(path)) << path;
    EXPECT_EQ(testing::open_descriptors(), held_before);
    close(socket);
  }
  EXPECT_EQ(SocketAddress(root + level + "/none/s").error(), ENOENT);
  EXPECT_EQ(SocketAddress(root + level).error(), ENAMETOOLONG);
}

}  // namespace
}  // namespace corvane::wire
