#include "platform/ipc/local_connection.h"

#include <gtest/gtest.h>

#include <chrono>
#include <optional>
#include <string>
#include <sys/socket.h>
#include <unistd.h>

#include "tests/support/test_platform.h"
#include "wire/limits.h"

namespace corvane {
namespace {

using namespace std::chrono_literals;

/// Answers each request with as many bytes as the test asks for.
struct Answering final : ExportedInterface {
  bool deliver(ExportedObject&, const Message&, plist::ByteChain& response) const override {
    response.append(std::string(answer_size, 'a'));
    return true;
  }
  size_t answer_size = 8;
};

/// A connection and the client's end of it, which sends and reads only what a test says.
class Connection : public ::testing::Test {
 protected:
  Connection() {
    int sockets[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sockets), 0);
    client_ = sockets[1];
    connection_.emplace(sockets[0], LocalConnection::Environment{wire::public_request_limit, answers_, nullptr});
    connection_->set_exported_interface(interface_);
    connection_->set_exported_object(object_);
    connection_->set_delivery_queue(testing::TestPlatform::fresh().request_queue());
    connection_->resume();
  }
  ~Connection() override { close(client_); }

  // The frame of an empty request, or its first bytes.
  void client_sends(size_t bytes = wire::header_size) {
    const auto frame = wire::encode_header({wire::raw_data_kind, 0});
    EXPECT_EQ(::send(client_, frame.data(), bytes, 0), static_cast<ssize_t>(bytes));
  }
  void let_it_work() {
    connection_->receive();
    while (connection_->has_request()) connection_->serve();
    connection_->send();
    connection_->update_deadlines(over_budget_);
  }
  // How long the connection waits for its client.
  std::chrono::milliseconds time_until_finished() {
    int ticks = 0;
    while (!connection_->is_finished() && ticks < 1000) {
      connection_->tick();
      ++ticks;
    }
    return ticks * LocalConnection::tick_interval;
  }

  SharedAnswers answers_;
  int client_ = -1;
  Answering interface_;
  ExportedObject object_;
  std::optional<LocalConnection> connection_;
  bool over_budget_ = false;
};

TEST_F(Connection, GivesARequestFiveSecondsToArriveWhole) {
  client_sends(3);
  let_it_work();
  EXPECT_EQ(time_until_finished(), 5s + LocalConnection::tick_interval);
  EXPECT_EQ(connection_->fault(), CloseReason::timeout);
}

TEST_F(Connection, GivesAnAnswerInTheKernelATimeoutOnlyWhileMemoryIsOverItsBudget) {
  interface_.answer_size = 100'000;
  client_sends();
  let_it_work();
  EXPECT_FALSE(connection_->wants_output());
  EXPECT_GE(connection_->memory(), 100'000u);
  EXPECT_FALSE(connection_->has_deadline());
  over_budget_ = true;
  let_it_work();
  EXPECT_EQ(time_until_finished(), 5s + LocalConnection::tick_interval);
}

TEST_F(Connection, GivesAClientFiveSecondsToReadMoreOfItsAnswer) {
  interface_.answer_size = 4 << 20;
  client_sends();
  let_it_work();
  for (int i = 0; i < 20; ++i) connection_->tick();
  std::string some(1 << 20, '\0');
  EXPECT_GT(recv(client_, some.data(), some.size(), 0), 0);
  let_it_work();
  EXPECT_EQ(time_until_finished(), 5s + LocalConnection::tick_interval);
  EXPECT_EQ(connection_->fault(), CloseReason::not_reading);
}

TEST_F(Connection, ServesNothingMoreWhileItsOutputIsOverTheLimit) {
  interface_.answer_size = wire::unread_output_limit / 2;
  for (int i = 0; i < 9; ++i) client_sends();
  connection_->receive();
  int served = 0;
  for (; connection_->has_request(); ++served) connection_->serve();
  EXPECT_EQ(served, 2);  // with their headers these are over it
}

}  // namespace
}  // namespace corvane
