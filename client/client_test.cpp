#include "client/client.h"

#include <gtest/gtest.h>

#include <thread>

#include "client/methods.h"
#include "tests/support/daemon_process.h"
#include "wire/socket_address.h"

namespace corvane::client {
namespace {

using testing::frame;
using testing::request;

enum class Then { close, wait_for_the_client };

/// Stands in for the daemon: for each answer it accepts a client, reads its request, sends the answer, and then
/// closes the connection or waits until the client does.
class Server {
 public:
  Server(const std::string& path, std::vector<std::string> answers, Then then)
      : listening_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    const timeval accept_timeout{20, 0};
    setsockopt(listening_, SOL_SOCKET, SO_RCVTIMEO, &accept_timeout, sizeof accept_timeout);
    unlink(path.c_str());
    const wire::SocketAddress address(path);
    EXPECT_TRUE(bind(listening_, address.get(), address.size()) == 0 && listen(listening_, 1) == 0);
    thread_ = std::jthread([=, this] {
      for (const std::string& answer : answers) serve(answer, then);
      close(listening_);
    });
  }

 private:
  void serve(const std::string& answer, Then then) const {
    const int client = accept(listening_, nullptr, nullptr);
    char bytes[1024];
    recv(client, bytes, sizeof bytes, 0);
    send(client, answer.data(), answer.size(), MSG_NOSIGNAL);
    while (then == Then::wait_for_the_client && recv(client, bytes, sizeof bytes, 0) > 0) continue;
    close(client);
  }

  const int listening_;
  std::jthread thread_;
};

class Client : public ::testing::Test {
 protected:
  Answer ask(std::chrono::milliseconds timeout = std::chrono::seconds(20)) const {
    Connection connection(wire::public_service, root_.at(""), timeout);
    return copy_regulatory_images(connection);
  }
  Answer ask_server(const std::string& answer) const {
    const Server server(socket_, {answer}, Then::wait_for_the_client);
    return ask();
  }

  const testing::DeviceRoot root_;
  const std::string socket_ = root_.socket(wire::public_service);
  /// A response without a reply has the shape of a request.
  const std::string answer_ = request(wire::copy_regulatory_images);
  const std::string part_ = answer_.substr(0, answer_.size() - 1);
};

TEST_F(Client, TellsHowACallEnded) {
  EXPECT_EQ(ask().outcome, Outcome::refused);
  EXPECT_EQ(ask_server(answer_).outcome, Outcome::answered);
  EXPECT_EQ(ask_server("HTTP/1.1 400 Bad Request\r\n").outcome, Outcome::bad_answer);
  EXPECT_EQ(ask_server("CV\x01\x01\xff\xff\xff\xff").outcome, Outcome::too_long);
  EXPECT_EQ(ask_server(frame(answer_.substr(wire::header_size), 2)).outcome, Outcome::bad_answer)
      << "another kind";
  EXPECT_EQ(ask_server(frame("no property list")).outcome, Outcome::bad_answer);
  {
    const Server server(socket_, {part_}, Then::close);
    EXPECT_EQ(ask().outcome, Outcome::closed);
  }
  for (const std::string& too_little : {std::string(), part_}) {
    const Server server(socket_, {too_little}, Then::wait_for_the_client);
    EXPECT_EQ(ask(std::chrono::milliseconds(200)).outcome, Outcome::timed_out) << too_little.size() << " bytes";
  }
}

std::string error_answer(std::string_view selector) {
  auto response = wire::make_request(selector);
  auto user_info = plist::MutableDictionary::create();
  user_info->set(wire::error_description_key, plist::String::create("why"));
  response->set(wire::error_object_key, wire::make_error_object(plist::String::create("domain"), 1, user_info));
  return frame(*response);
}

TEST_F(Client, TakesOnlyTheAnswerToItsRequest) {
  EXPECT_EQ(ask_server(request("another")).outcome, Outcome::bad_answer);
  EXPECT_EQ(ask_server(error_answer("another")).outcome, Outcome::bad_answer);
  EXPECT_EQ(ask_server(request("")).outcome, Outcome::bad_answer);
  // The daemon could not read the request, and so had no selector to repeat.
  const Answer unreadable = ask_server(error_answer(""));
  EXPECT_EQ(unreadable.outcome, Outcome::answered) << unreadable.detail;
  EXPECT_TRUE(unreadable.response.failed);
  EXPECT_EQ(unreadable.response.description, "why");
}

}  // namespace
}  // namespace corvane::client
