#include "client/client.h"

#include <gtest/gtest.h>

#include <sys/socket.h>
#include <thread>
#include <unistd.h>

#include "tests/support/daemon_process.h"
#include "wire/limits.h"
#include "wire/socket_address.h"

namespace corvane::client {
namespace {

using testing::frame;
using testing::request;

int listen_at(const std::string& path) {
  unlink(path.c_str());
  const wire::SocketAddress address(path);
  const int listening = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  EXPECT_EQ(bind(listening, address.get(), address.size()), 0);
  EXPECT_EQ(listen(listening, 1), 0);
  return listening;
}

// Meets one client's request with `answer`, then hangs up or stays until the client goes.
void serve_one(int listening, const std::string& answer, bool hangs_up) {
  const int client = accept(listening, nullptr, nullptr);
  char bytes[1024];
  recv(client, bytes, sizeof bytes, 0);
  send(client, answer.data(), answer.size(), MSG_NOSIGNAL);
  while (!hangs_up && recv(client, bytes, sizeof bytes, 0) > 0) continue;
  close(client);
  close(listening);
}

TEST(Client, TellsHowACallEnded) {
  const testing::DeviceRoot root;
  const auto ask = [&](std::chrono::milliseconds timeout) {
    Connection connection(wire::public_service, root.at(""), timeout);
    return copy_regulatory_images(connection).outcome;
  };
  const std::chrono::milliseconds brief{200};
  const std::chrono::milliseconds ample{20'000};
  EXPECT_EQ(ask(ample), Outcome::refused);

  const auto too_long = wire::encode_header({wire::raw_data_kind, wire::response_limit + 1});
  const std::string right = request(wire::copy_regulatory_images);
  struct {
    std::string answer;
    bool hangs_up;
    Outcome outcome;
  } const cases[] = {
      {right, false, Outcome::answered},
      {right, true, Outcome::answered},
      {"", true, Outcome::closed},
      {right.substr(0, right.size() - 1), true, Outcome::closed},
      {"", false, Outcome::timed_out},
      {right.substr(0, right.size() - 1), false, Outcome::timed_out},
      {"HTTP/1.1 400 Bad Request\r\n", false, Outcome::bad_answer},
      {{too_long.data(), too_long.size()}, false, Outcome::bad_answer},
      {frame(right.substr(wire::header_size), 2), false, Outcome::bad_answer},
      {frame("garbage"), false, Outcome::bad_answer},
      {frame("<plist><array/></plist>"), false, Outcome::bad_answer},
      {frame("<plist><dict/></plist>"), false, Outcome::bad_answer},
      {request("another"), false, Outcome::bad_answer},
  };
  for (const auto& [answer, hangs_up, outcome] : cases) {
    std::thread daemon(serve_one, listen_at(root.socket(wire::public_service)), answer, hangs_up);
    EXPECT_EQ(ask(outcome == Outcome::timed_out ? brief : ample), outcome) << answer;
    daemon.join();
  }
}

}  // namespace
}  // namespace corvane::client
