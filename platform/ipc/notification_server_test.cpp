#include "platform/ipc/notification_server.h"

#include <gtest/gtest.h>

#include <functional>
#include <future>
#include <memory>
#include <vector>

#include "plist/describe.h"
#include "tests/support/daemon_process.h"
#include "tests/support/test_platform.h"
#include "wire/limits.h"

namespace corvane::testing {
namespace {

std::string heard(const std::string& name) {
  return "{\"Notification\": \"" + name + "\", \"Object\": \"" + name + "\"}";
}

/// The service on a request queue with its thread, and whoever subscribes.
class Notifications : public ::testing::Test {
 protected:
  Notifications() {
    queue_.create("test");
    server_.resume();
    settle();
  }

  std::unique_ptr<RawClient> subscriber() { return std::make_unique<RawClient>(path_); }
  void post(const std::string& name) {
    on_queue([&] { server_.post(*plist::String::create(name)); });
  }
  // What the queue was given, and what its sockets had to tell by then, has been done.
  void settle() {
    for (int i = 0; i < 3; ++i) on_queue([] {});
  }
  void on_queue(const std::function<void()>& work) {
    std::promise<void> done;
    queue_.submit([&] {
      work();
      done.set_value();
    });
    done.get_future().wait();
  }

  const std::string path_ = (TestPlatform::fresh(), system_path("/run/corvaned/notifications"));
  RequestQueue queue_;
  SocketCloser closer_;
  NotificationServer server_{path_, -1, queue_, closer_};
};

TEST_F(Notifications, ReachWhoeverIsConnectedInOrder) {
  const auto first = subscriber();
  post("one");
  const auto second = subscriber();
  post("two");  // at once: the second connection may still be in the backlog
  for (const char* name : {"one", "two"}) EXPECT_EQ(plist::describe(first->response().get()), heard(name));
  EXPECT_EQ(plist::describe(second->response().get()), heard("two"));
}

TEST_F(Notifications, ReachASubscriberThatSendsNothingMore) {
  const auto half_closed = subscriber(), talkative = subscriber();
  post("one");
  half_closed->finish();
  EXPECT_FALSE(talkative->send("hello"));  // nothing can be sent to the daemon
  settle();
  post("two");
  for (const auto* each : {&half_closed, &talkative}) {
    for (const char* name : {"one", "two"}) EXPECT_EQ(plist::describe((*each)->response().get()), heard(name));
  }
}

TEST_F(Notifications, WhoStopsReadingMissesSomeAndIsToldHowMany) {
  const auto reads = subscriber(), sleeps = subscriber();
  const std::string name(2000, 'n');
  const int posts = 500;  // more than the socket and the daemon keep for one who does not read
  for (int i = 0; i < posts; ++i) {
    post(name + std::to_string(i));
    ASSERT_EQ(plist::describe(reads->response().get()), heard(name + std::to_string(i)));
  }
  int next = 0;
  while (sleeps->has_news(200)) {
    ASSERT_EQ(plist::describe(sleeps->response().get()), heard(name + std::to_string(next++)));
  }
  ASSERT_LT(next, posts);
  post("last");
  EXPECT_EQ(plist::describe(sleeps->response().get()), "{\"Missed\": " + std::to_string(posts - next) + "}");
  EXPECT_EQ(plist::describe(sleeps->response().get()), heard("last"));
  NotificationCounts counts;
  on_queue([&] { counts = server_.counts(); });
  EXPECT_EQ(counts.posted, static_cast<uint64_t>(posts + 1));
  EXPECT_EQ(counts.missed, static_cast<uint64_t>(posts - next));
}

}  // namespace
}  // namespace corvane::testing
