#include "client/client.h"

#include <gtest/gtest.h>

#include <thread>

#include "tests/support/daemon_process.h"
#include "wire/socket_address.h"

namespace corvane::client {
namespace {

using testing::frame;
using testing::request;

// Listens, then meets one client's request with `answer`, and hangs up or stays until the client goes.
std::thread serve_one(const std::string& path, const std::string& answer, bool hangs_up) {
  unlink(path.c_str());
  const wire::SocketAddress address(path);
  const int listening = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  EXPECT_TRUE(bind(listening, address.get(), address.size()) == 0 && listen(listening, 1) == 0);
  return std::thread([=] {
    const int client = accept(listening, nullptr, nullptr);
    char bytes[1024];
    recv(client, bytes, sizeof bytes, 0);
    send(client, answer.data(), answer.size(), MSG_NOSIGNAL);
    while (!hangs_up && recv(client, bytes, sizeof bytes, 0) > 0) continue;
    close(client);
    close(listening);
  });
}

TEST(Client, TellsHowACallEnded) {
  const testing::DeviceRoot root;
  const auto ask = [&](Outcome expected = Outcome::answered) {
    const std::chrono::milliseconds timeout(expected == Outcome::timed_out ? 200 : 20'000);
    Connection connection(wire::public_service, root.at(""), timeout);
    return copy_regulatory_images(connection).outcome;
  };
  EXPECT_EQ(ask(), Outcome::refused);

  const std::string right = request(wire::copy_regulatory_images);
  const std::tuple<std::string, bool, Outcome> cases[] = {
      {right, false, Outcome::answered},
      {right, true, Outcome::answered},
      {right.substr(0, right.size() - 1), true, Outcome::closed},
      {"", false, Outcome::timed_out},
      {right.substr(0, right.size() - 1), false, Outcome::timed_out},
      {"HTTP/1.1 400 Bad Request\r\n", false, Outcome::bad_answer},
      {"CV\x01\x01\xff\xff\xff\xff", false, Outcome::bad_answer},
      {frame(right.substr(wire::header_size), 2), false, Outcome::bad_answer},
      {frame("garbage"), false, Outcome::bad_answer},
      {request("another"), false, Outcome::bad_answer},
  };
  for (const auto& [answer, hangs_up, outcome] : cases) {
    std::thread daemon = serve_one(root.socket(wire::public_service), answer, hangs_up);
    EXPECT_EQ(ask(outcome), outcome) << answer;
    daemon.join();
  }
}

}  // namespace
}  // namespace corvane::client
