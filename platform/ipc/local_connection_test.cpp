#include "platform/ipc/local_connection.h"

#include <asio/io_context.hpp>
#include <asio/local/connect_pair.hpp>
#include <asio/read.hpp>
#include <asio/write.hpp>
#include <gtest/gtest.h>

#include <chrono>
#include <optional>
#include <string>

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
    LocalConnection::Socket ours(context_);
    asio::local::connect_pair(ours, client_);
    ours.non_blocking(true);
    connection_.emplace(std::move(ours), wire::public_request_limit);
    connection_->set_exported_interface(interface_);
    connection_->set_exported_object(object_);
    connection_->set_delivery_queue(testing::TestPlatform::fresh().request_queue());
    connection_->resume();
  }

  // The frame of an empty request, or its first bytes.
  void client_sends(size_t bytes = wire::header_size) {
    const auto frame = wire::encode_header({wire::raw_data_kind, 0});
    asio::write(client_, asio::buffer(frame, bytes));
  }
  void let_it_work() {
    connection_->receive();
    while (connection_->serve_next()) {
    }
    connection_->send();
    connection_->update_deadlines(over_budget_);
  }
  // How long the connection waits for its client.
  std::chrono::milliseconds time_until_finished() {
    int ticks = 0;
    while (!connection_->is_finished() && ticks < 1000) {
      connection_->tick(over_budget_);
      ++ticks;
    }
    return ticks * LocalConnection::tick_interval;
  }

  asio::io_context context_;
  LocalConnection::Socket client_{context_};
  Answering interface_;
  ExportedObject object_;
  std::optional<LocalConnection> connection_;
  bool over_budget_ = false;
};

TEST_F(Connection, GivesARequestFiveSecondsToArriveWhole) {
  client_sends(3);
  let_it_work();
  EXPECT_EQ(time_until_finished(), 5s + LocalConnection::tick_interval);
  EXPECT_STREQ(connection_->fault(), "its request did not arrive whole in time");
}

TEST_F(Connection, BlamesNobodyForARequestThatItDoesNotReadItself) {
  over_budget_ = true;
  client_sends(3);
  let_it_work();
  EXPECT_FALSE(connection_->has_deadline());
}

TEST_F(Connection, GivesAClientFiveSecondsToReadAndLessWhileOverBudget) {
  interface_.answer_size = 4 << 20;
  client_sends();
  let_it_work();
  over_budget_ = true;
  connection_->tick(over_budget_);
  EXPECT_FALSE(connection_->is_finished());
  connection_->tick(over_budget_);
  EXPECT_TRUE(connection_->is_finished());
  EXPECT_STREQ(connection_->fault(), "it did not read its answers");
}

TEST_F(Connection, StartsTheTimeoutAnewWithEachByteThatIsRead) {
  interface_.answer_size = 4 << 20;
  client_sends();
  let_it_work();
  for (int i = 0; i < 20; ++i) connection_->tick(over_budget_);
  std::string some(1 << 20, '\0');
  asio::read(client_, asio::buffer(some), asio::transfer_at_least(1 << 16));
  let_it_work();
  EXPECT_EQ(time_until_finished(), 5s + LocalConnection::tick_interval);
}

TEST_F(Connection, ServesNothingMoreWhileItsOutputIsOverTheLimit) {
  interface_.answer_size = wire::unread_output_limit / 2;
  for (int i = 0; i < 9; ++i) client_sends();
  connection_->receive();
  int served = 0;
  while (connection_->serve_next()) ++served;
  EXPECT_EQ(served, 2);  // with their headers these are over it
}

}  // namespace
}  // namespace corvane
