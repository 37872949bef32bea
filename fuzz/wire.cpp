// A client's stream on a real connection of the public or the admin service: what comes back must be one
// well-formed response for each request of the raw-data kind up to the first thing that is no frame, in order.
// What was changed in the data ark is stored by then.

#include <algorithm>
#include <cstdint>
#include <fcntl.h>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "daemon/connection_setup.h"
#include "daemon/corvane_admin.h"
#include "daemon/corvane_daemon.h"
#include "daemon/protocols.h"
#include "fuzz/ensure.h"
#include "platform/ipc/local_connection.h"
#include "plist/big_endian.h"
#include "plist/entitlements_blob.h"
#include "plist/reader.h"
#include "state/data_ark.h"
#include "tests/support/test_platform.h"
#include "wire/limits.h"
#include "wire/messages.h"

namespace corvane::fuzz {

using plist::Ref;
using testing::TestPlatform;

namespace {

/// The client's end: sends what it is told, and keeps what comes back.
class Client {
 public:
  explicit Client(int socket) : socket_(socket) {}
  ~Client() { close(socket_); }
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  /// Sends as much as the other end takes now.
  size_t send(std::string_view bytes) {
    const ssize_t sent = ::send(socket_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    return sent < 0 ? 0 : static_cast<size_t>(sent);
  }
  void end() { ::shutdown(socket_, SHUT_WR); }

  bool receive() {
    const std::span<char> buffer = reader_.prepare();
    const ssize_t count = ::recv(socket_, buffer.data(), buffer.size(), 0);
    if (count <= 0) return false;
    reader_.commit(static_cast<size_t>(count));
    wire::Frame frame;
    wire::FrameReader::Status status;
    while ((status = reader_.next(frame)) == wire::FrameReader::Status::frame) responses.push_back(frame);
    ENSURE(status == wire::FrameReader::Status::incomplete);
    return true;
  }
  bool inside_frame() const { return reader_.inside_frame(); }

  std::vector<wire::Frame> responses;

 private:
  const int socket_;
  wire::FrameReader reader_{wire::response_limit};
};

/// The bodies of the requests that a response is due to.
std::vector<std::string_view> due_requests(std::string_view stream, uint32_t limit) {
  std::vector<std::string_view> due;
  while (stream.size() >= 8 && stream.starts_with("CV\1")) {
    const uint64_t length = plist::load_big_endian<4>(stream.data() + 4);
    if (length > limit || length > stream.size() - 8) break;
    if (stream[3] == 1) due.push_back(stream.substr(8, length));
    stream.remove_prefix(8 + length);
  }
  return due;
}

void expect_response(const wire::Frame& frame, std::string_view request) {
  ENSURE(frame.kind == wire::raw_data_kind);
  const plist::Decoded decoded = plist::decode(frame.body, plist::Containers::immutable);
  const auto* dictionary = plist::cast<plist::Dictionary>(decoded.value.get());
  wire::Response response;
  ENSURE(dictionary != nullptr && wire::read_response(*dictionary, response));

  const plist::Decoded asked =
      plist::decode(plist::Data::create(request), plist::Containers::immutable, wire::request_depth_limit);
  const auto* question = plist::cast<plist::Dictionary>(asked.value.get());
  const plist::String* selector = question == nullptr ? nullptr : wire::request_selector(*question);
  ENSURE(wire::request_selector(*dictionary)->view() == (selector == nullptr ? "" : selector->view()));
  ENSURE(question != nullptr || response.failed);
}

void exchange(std::string_view stream, bool admin, bool peeks, size_t chunk) {
  static CorvaneDaemon daemon;
  const DataArk ark = data_ark_load();
  CorvaneAdmin administrator;  // a new one, which watches nothing yet
  administrator.set_ark(ark.get());
  int sockets[2];
  ENSURE(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, sockets) == 0);
  Client client(sockets[1]);
  const uint32_t limit = admin ? wire::admin_request_limit : wire::public_request_limit;
  SharedAnswers answers;
  static SocketCloser closer;  // one for each input would leave sockets open that it had not come to yet
  LocalConnection connection(sockets[0], {limit, answers, peeks ? &closer : nullptr});
  set_up_connection(connection, admin ? corvane_admin_protocol() : corvane_protocol(),
                    admin ? static_cast<ExportedObject&>(administrator) : daemon);
  // As the listener does it.
  const auto turn = [&] {
    connection.receive();
    while (connection.has_request()) connection.serve();
    connection.send();
    return client.receive();
  };
  for (std::string_view rest = stream; !rest.empty() && !connection.is_finished();) {
    rest.remove_prefix(client.send(rest.substr(0, chunk)));
    turn();
  }
  client.end();
  while (turn() || !connection.is_finished()) {
  }
  ENSURE(!connection.fault() || !connection.wants_output());
  ENSURE(data_ark_dirty_count(ark.get()) == 0);
  connection.close();
  ENSURE(connection.held_output() == 0 && answers.bytes() == 0);
  const std::vector<std::string_view> due = due_requests(stream, limit);
  ENSURE(client.responses.size() == due.size() && !client.inside_frame());
  for (size_t i = 0; i < due.size(); ++i) expect_response(client.responses[i], due[i]);
}

// What a stored request leaves behind must not be there for the next input.
void start_anew() {
  static TestPlatform& platform = TestPlatform::fresh();
  static const std::string folder = platform.root() + "/private/var/mobile/Library/cvd";
  static const bool has_folder = mkdir(folder.c_str(), 0700) == 0;
  ENSURE(has_folder);
  unlink((folder + "/regulatory_images/regulatory_images.plist").c_str());
  unlink((folder + "/data_ark.plist").c_str());
  platform.take_lines();
  platform.posted.clear();
  platform.properties["ProductVersion"] = plist::String::create("9.1");
  platform.entitlements_blob =
      plist::make_entitlements_blob("<plist version=\"1.0\"><dict><key>radio</key><true/></dict></plist>");
}

}  // namespace
}  // namespace corvane::fuzz

// The first byte: whose service, whether descriptors are looked for, and in what chunks the stream comes.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
  if (size == 0) return 0;
  constexpr size_t chunks[] = {SIZE_MAX, 1, 7, 8, 9, 100, 4096, 5000};
  corvane::fuzz::start_anew();
  corvane::fuzz::exchange({reinterpret_cast<const char*>(bytes) + 1, size - 1}, (bytes[0] & 8) != 0,
                          (bytes[0] & 16) != 0, chunks[bytes[0] & 7]);
  return 0;
}
