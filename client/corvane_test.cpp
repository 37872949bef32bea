#include "client/corvane.h"

#include <gtest/gtest.h>

#include <cmath>
#include <memory>
#include <poll.h>
#include <sys/wait.h>

#include "tests/support/daemon_process.h"
#include "tests/support/failing_allocation.h"
#include "wire/socket_address.h"

namespace corvane {
namespace {

struct Release {
  void operator()(corvane_value* value) const { corvane_value_release(value); }
  void operator()(corvane_connection* connection) const { corvane_connection_close(connection); }
  void operator()(corvane_images* images) const { corvane_images_close(images); }
  void operator()(corvane_subscription* subscription) const { corvane_subscription_close(subscription); }
};
template <class T>
using Owned = std::unique_ptr<T, Release>;
using Value = Owned<corvane_value>;

Value dictionary(const std::vector<const char*>& keys, const std::vector<corvane_value*>& values) {
  return Value(corvane_dictionary_new(keys.data(), nullptr, values.data(), values.size()));
}

TEST(CorvaneValues, AnswerNothingAsAnotherKind) {
  corvane_value* item = corvane_string_new("item");
  const Value array(corvane_array_new(&item, 1)), real(corvane_real_new(1)), null;
  for (const Value* value : {&array, &real, &null}) {
    SCOPED_TRACE(corvane_value_kind(value->get()));
    EXPECT_EQ(corvane_value_get(value->get(), "key"), nullptr);
    EXPECT_EQ(corvane_value_key_at(value->get(), 0, nullptr), nullptr);
    EXPECT_EQ(corvane_value_at(value->get(), corvane_value_count(value->get())), nullptr);
    EXPECT_EQ(corvane_value_string(value->get(), nullptr), nullptr);
    EXPECT_EQ(corvane_value_data(value->get(), nullptr), nullptr);
    EXPECT_EQ(corvane_value_date(value->get(), nullptr), CORVANE_WRONG_KIND);
    EXPECT_EQ(corvane_value_int64(value->get(), nullptr), CORVANE_WRONG_KIND);
    EXPECT_EQ(corvane_value_boolean(value->get(), nullptr), CORVANE_WRONG_KIND);
  }
  EXPECT_EQ(corvane_value_real(array.get(), nullptr), CORVANE_WRONG_KIND);
  EXPECT_EQ(corvane_value_uint64(Value(corvane_int64_new(-1)).get(), nullptr), CORVANE_WRONG_KIND);
  EXPECT_EQ(corvane_value_int64(Value(corvane_uint64_new(UINT64_MAX)).get(), nullptr), CORVANE_WRONG_KIND);
}

TEST(CorvaneValues, WhatIsNoValueIsRefusedAndWhatWasTakenOverReleased) {
  EXPECT_FALSE(Value(corvane_string_new("\xff")));
  EXPECT_FALSE(Value(corvane_date_new(NAN)));
  EXPECT_FALSE(dictionary({"a", "b"}, {corvane_string_new("released"), corvane_string_new("\xff")}));
  EXPECT_FALSE(dictionary({"a", nullptr}, {corvane_string_new("in it"), corvane_string_new("released")}));
  EXPECT_FALSE(dictionary({"\xff"}, {corvane_string_new("released")}));
  EXPECT_FALSE(Value(corvane_array_new(nullptr, 1)));
}

TEST(CorvaneValues, ASetRefusesAMemberThatNestsTooDeep) {
  Value nest(corvane_string_new("innermost"));
  for (int depth = 1; depth <= 100'000; ++depth) {
    corvane_value* item = nest.release();
    nest.reset(corvane_array_new(&item, 1));
    if (depth != 128 && depth != 100'000) continue;
    corvane_value* member = corvane_value_retain(nest.get());
    EXPECT_EQ(Value(corvane_set_new(&member, 1)) != nullptr, depth == 128) << depth;
  }
}

TEST(CorvaneValues, WhatRepeatsItselfWithoutEndIsNeitherAMemberNorSent) {
  Value twice(corvane_string_new("innermost"));
  for (int level = 0; level < 60; ++level) {
    corvane_value* items[] = {corvane_value_retain(twice.get()), twice.release()};
    twice.reset(corvane_array_new(items, 2));
  }
  corvane_value* member = corvane_value_retain(twice.get());
  EXPECT_FALSE(Value(corvane_set_new(&member, 1)));
  corvane_connection* opened = nullptr;
  ASSERT_EQ(corvane_connection_open(CORVANE_PUBLIC, "/nowhere", 1000, &opened, nullptr), CORVANE_OK);
  const Owned<corvane_connection> connection(opened);
  const Value arguments = dictionary({"Value"}, {twice.release()});
  corvane_error error;
  EXPECT_EQ(corvane_ask(opened, "selector", arguments.get(), nullptr, &error), CORVANE_BAD_REQUEST);
  EXPECT_STREQ(error.message, "the request cannot be sent: longer than 65536 bytes");
}

TEST(CorvaneImages, AreTheDataValuesWithTheKeysThatLeadToThem) {
  corvane_value* items[] = {corvane_string_new("no image"), corvane_data_new("\x89PNG\r\n\x1a\n...", 11),
                            corvane_array_new(nullptr, 0), corvane_data_new("", 0)};
  const Value images = dictionary({"Marks/EU"}, {corvane_array_new(items, 4)});
  const Owned<corvane_images> walk(corvane_images_open(images.get()));
  corvane_image image;
  ASSERT_EQ(corvane_images_next(walk.get(), &image), CORVANE_OK);
  EXPECT_STREQ(image.name, "Marks/EU/1");
  EXPECT_STREQ(image.media_type, "image/png");
  ASSERT_EQ(corvane_images_next(walk.get(), &image), CORVANE_OK);
  EXPECT_STREQ(image.name, "Marks/EU/3");
  EXPECT_STREQ(image.extension, "bin");
  EXPECT_EQ(corvane_images_next(walk.get(), &image), CORVANE_END);
}

/// Connections to a daemon of its own.
class Corvane : public ::testing::Test {
 protected:
  Owned<corvane_connection> connect(corvane_service service) const {
    corvane_connection* connection = nullptr;
    corvane_connection_open(service, folder_.c_str(), 20'000, &connection, nullptr);
    return Owned<corvane_connection>(connection);
  }
  corvane_status get_version(const Owned<corvane_connection>& connection) {
    corvane_value* reply = nullptr;
    const corvane_status status = corvane_get_version(connection.get(), &reply, &error_);
    const Value owned(reply);
    if (status == CORVANE_OK) {
      EXPECT_NE(corvane_value_string(corvane_value_get(reply, "Version"), nullptr), nullptr);
    }
    return status;
  }

  const testing::DeviceRoot root_;
  const std::string folder_ = root_.at("");
  corvane_error error_;
};

TEST_F(Corvane, TellsWhatWentWrong) {
  const auto connection = connect(CORVANE_PUBLIC), admin = connect(CORVANE_ADMIN);
  EXPECT_EQ(get_version(connection), CORVANE_REFUSED);
  EXPECT_NE(std::string(error_.message).find("com.norvane.corvaned: No such file"), std::string::npos);

  const testing::DaemonProcess daemon(root_);
  EXPECT_EQ(get_version(connection), CORVANE_OK);
  EXPECT_STREQ(error_.message, "");

  corvane_value* reply;
  EXPECT_EQ(corvane_ask(connection.get(), "noSuchMethod", nullptr, &reply, &error_), CORVANE_DAEMON_ERROR);
  EXPECT_EQ(error_.code, 1);
  EXPECT_STREQ(error_.message, "Unexpeceted parameter");
  EXPECT_EQ(reply, nullptr);

  EXPECT_EQ(corvane_get_version(nullptr, &reply, &error_), CORVANE_BAD_REQUEST);
  const Value no_dictionary(corvane_string_new("text"));
  EXPECT_EQ(corvane_ask(connection.get(), "selector", no_dictionary.get(), &reply, &error_), CORVANE_BAD_REQUEST);
  EXPECT_EQ(corvane_ark_set(admin.get(), nullptr, "key", nullptr, &reply, &error_), CORVANE_BAD_REQUEST);
  for (const auto call : {corvane_ark_get, corvane_ark_remove, corvane_ark_watch}) {
    EXPECT_EQ(call(admin.get(), "domain", nullptr, &reply, &error_), CORVANE_BAD_REQUEST) << error_.message;
  }
  EXPECT_EQ(corvane_ark_get(admin.get(), "\xff", "key", &reply, &error_), CORVANE_BAD_REQUEST);
  EXPECT_STREQ(error_.message, "the domain is not UTF-8");
  // The message is cut before the first character that does not fit.
  std::string long_root;
  while (long_root.size() < 1000) long_root += "\u00e9";
  corvane_subscription* subscription;
  EXPECT_EQ(corvane_subscription_open(long_root.c_str(), &subscription, &error_), CORVANE_REFUSED);
  EXPECT_EQ(std::string(error_.message), long_root.substr(0, 510));
}

TEST_F(Corvane, AChildProcessGetsAConnectionOfItsOwn) {
  const testing::DaemonProcess daemon(root_);
  const auto connection = connect(CORVANE_PUBLIC);
  ASSERT_EQ(get_version(connection), CORVANE_OK);
  const size_t connected = daemon.descriptors();
  const pid_t child = fork();
  if (child == 0) {
    const bool is_well = get_version(connection) == CORVANE_OK && daemon.descriptors() == connected + 1;
    _exit(is_well ? 0 : 1);
  }
  int status = -1;
  waitpid(child, &status, 0);
  EXPECT_EQ(status, 0) << "the child was not answered, or over its parent's connection";
  EXPECT_EQ(get_version(connection), CORVANE_OK);
}

TEST_F(Corvane, AfterACallThatRanOutOfMemoryTheNextOneIsAnswered) {
  const testing::DaemonProcess daemon(root_);
  const auto connection = connect(CORVANE_PUBLIC), admin = connect(CORVANE_ADMIN);
  const std::string bytes(100'000, 'x');
  int failures = 0;
  const auto store_and_get_images = [&] {
    corvane_value* mark = corvane_data_new(bytes.data(), bytes.size());
    const Value images(corvane_set_new(&mark, 1));
    const corvane_status stored = corvane_store_images(admin.get(), images.get(), &error_);
    corvane_value* reply = nullptr;
    const corvane_status got = corvane_get_images(connection.get(), &reply, &error_);
    const Value owned(reply);
    const Owned<corvane_images> walk(corvane_images_open(corvane_value_get(reply, "RegulatoryImages")));
    corvane_image image;
    const corvane_status walked = corvane_images_next(walk.get(), &image);
    corvane_subscription* opened = nullptr;
    const corvane_status subscribed = corvane_subscription_open(folder_.c_str(), &opened, &error_);
    const Owned<corvane_subscription> subscription(opened);
    for (const corvane_status status : {stored, got, walked, subscribed}) failures += status != CORVANE_OK;
  };
  int allocations = 0;
  while (failures = 0, testing::run_with_failing_allocation(allocations, store_and_get_images)) {
    SCOPED_TRACE("without allocation " + std::to_string(allocations++));
    EXPECT_GT(failures, 0);
    EXPECT_EQ(get_version(connection), CORVANE_OK) << error_.message;
  }
  EXPECT_EQ(failures, 0) << "with all allocations";
  EXPECT_GT(allocations, 40);
}

TEST_F(Corvane, ASubscriptionServesAnEventLoop) {
  const std::string path = root_.socket(wire::notification_service);
  const wire::SocketAddress address(path);
  const int listening = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  ASSERT_TRUE(bind(listening, address.get(), address.size()) == 0 && listen(listening, 1) == 0);
  corvane_subscription* opened = nullptr;
  ASSERT_EQ(corvane_subscription_open(folder_.c_str(), &opened, &error_), CORVANE_OK);
  const Owned<corvane_subscription> subscription(opened);
  const int daemon = accept(listening, nullptr, nullptr);
  close(listening);
  pollfd waiting{corvane_subscription_descriptor(opened), POLLIN, 0};
  corvane_notification notification;
  const auto next = [&] { return corvane_subscription_next(opened, 0, &notification, &error_); };
  const auto send = [&](const std::string& bytes) {
    EXPECT_EQ(write(daemon, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
  };

  EXPECT_EQ(poll(&waiting, 1, 0), 0);
  EXPECT_EQ(next(), CORVANE_TIMED_OUT);

  const std::string changed = testing::frame(*wire::make_notification(*plist::String::create("changed")));
  send(testing::frame(*wire::make_missed(3)) + changed + changed.substr(0, 20));
  EXPECT_EQ(poll(&waiting, 1, 0), 1);
  EXPECT_EQ(next(), CORVANE_OK);
  EXPECT_EQ(notification.missed, 3);
  EXPECT_EQ(next(), CORVANE_OK);
  EXPECT_STREQ(notification.name, "changed");
  EXPECT_EQ(next(), CORVANE_TIMED_OUT);

  send(changed.substr(20) + testing::frame("no property list") + changed);
  EXPECT_EQ(next(), CORVANE_OK);
  EXPECT_EQ(next(), CORVANE_BAD_ANSWER);
  EXPECT_EQ(next(), CORVANE_BAD_ANSWER);
  close(daemon);
}

}  // namespace
}  // namespace corvane
