#include <gtest/gtest.h>

#include <filesystem>
#include <map>

#include "client/methods.h"
#include "client/subscription.h"
#include "plist/reader.h"
#include "tests/support/daemon_process.h"
#include "wire/limits.h"

namespace corvane {
namespace {

using namespace testing;
using client::Answer;
using client::ArkKey;
using plist::Ref;

constexpr char bad_argument[] = "code 1: Unexpeceted parameter";
constexpr char not_stored[] =
    "code 2: it is done, but the data ark could not be stored: look into the log, and at the state directory";

Ref<plist::Value> text(std::string_view utf8) { return plist::String::create(utf8); }

/// What an answer says: its dictionary, "nothing", or its error.
std::string said(const Answer& answer) {
  const wire::Response& response = answer.response;
  if (response.failed) return "code " + std::to_string(response.code) + ": " + response.description;
  return response.reply ? plist::describe(response.reply.get()) : "nothing";
}

std::string field_of(const Answer& answer, std::string_view name) {
  return plist::describe(answer.response.reply->get(name));
}

/// A property list that is written as the XML of its elements.
Ref<plist::Value> plist_of(const std::string& xml) {
  return plist::decode(plist::Data::create("<plist>" + xml + "</plist>"), plist::Containers::immutable).value;
}
std::string entry(const std::string& key, const std::string& value, const std::string& attributes = "") {
  return "<dict><key>Key</key><string>" + key + "</string><key>Value</key><string>" + value + "</string>" +
         attributes + "</dict>";
}
std::string attributes(const std::string& integers) {
  return "<key>Attributes</key><array>" + integers + "</array>";
}

/// A daemon, and an operator who uses its data ark.
class ArkService : public ::testing::Test {
 protected:
  Answer restore(const std::string& entries) {
    return client::restore_ark_entries(
        operator_, plist::cast<plist::Array>(plist_of("<array>" + entries + "</array>").get()));
  }
  std::string set(const ArkKey& key, std::string_view value) {
    return said(client::set_ark_value(operator_, key, text(value)));
  }
  std::string get(const ArkKey& key) { return said(client::copy_ark_value(operator_, key)); }
  std::string remove(const ArkKey& key) { return said(client::remove_ark_value(operator_, key)); }
  std::string file() const {
    const std::string bytes = read_file(root_.at("/private/var/mobile/Library/cvd/data_ark.plist"));
    return plist::describe(plist::decode(plist::Data::create(bytes), plist::Containers::immutable).value.get());
  }

  const DeviceRoot root_;
  const DaemonProcess daemon_{root_};
  client::Connection operator_{wire::admin_service, root_.at("")};
};

TEST_F(ArkService, WhatItAnswersIsWhatTheFileHasAfterEachChange) {
  std::map<std::string, std::string> model;
  for (unsigned step = 0; step < 60; ++step) {
    SCOPED_TRACE(step);
    const std::string key = std::to_string(step * 7 % 5), value = std::to_string(step);
    const std::string before =
        model.count(key) != 0 ? R"({"Attributes": [], "Value": ")" + model[key] + "\"}" : "nothing";
    EXPECT_EQ(get({"domain", key}), before);
    const bool removes = step % 3 == 2;
    EXPECT_EQ(removes ? remove({"domain", key}) : set({"domain", key}, value), before);
    model[key] = value;
    if (removes) model.erase(key);
    std::string expected;
    for (const auto& [name, set_to] : model) expected += ", \"domain-" + name + "\": \"" + set_to + "\"";
    EXPECT_EQ(file(), expected.empty() ? "(null)" : "{" + expected.substr(2) + "}");
  }
}

// What was set under inherited attributes was not counted as unsaved, and so not stored.
TEST_F(ArkService, RestoredEntriesHaveJustTheirOwnAttributesAndAreStored) {
  EXPECT_EQ(said(client::set_ark_attributes(operator_, {"cache", {}}, {7, 1})), R"({"Attributes": []})");
  EXPECT_EQ(said(restore(entry("cache-A", "first") + entry("cache-B-C", "b", attributes("<integer>5</integer>")) +
                         entry("cache-T", "t", attributes("<integer>1</integer>")) + entry("cache-A", "last"))),
            "nothing");
  EXPECT_EQ(get({"cache", "A"}), R"({"Attributes": [], "Value": "last"})");
  EXPECT_EQ(get({"cache", "B-C"}), R"({"Attributes": [5], "Value": "b"})");
  EXPECT_EQ(file(), R"({"cache-A": "last", "cache-B-C": "b"})");

  EXPECT_EQ(said(client::set_ark_attributes(operator_, {"cache", "T"}, {})), R"({"Attributes": [1]})");
  EXPECT_EQ(file(), R"({"cache-A": "last", "cache-B-C": "b", "cache-T": "t"})");
}

TEST_F(ArkService, AChangeThatIsNotCountedAsUnsavedIsStored) {
  set({{}, "five"}, "old");
  client::set_ark_attributes(operator_, {{}, "five"}, {5});
  set({{}, "five"}, "new");
  EXPECT_EQ(file(), R"({"-five": "new"})");
}

// A failed store leaves nothing unsaved, and a repeated request changes nothing.
TEST_F(ArkService, ARequestThatIsRepeatedAfterAFailedStoreStoresAgain) {
  set({{}, "kept"}, "old");
  const std::string obstacle = root_.at("/private/var/mobile/Library/cvd/data_ark.plist.XXXXXX");
  std::filesystem::create_directory(obstacle);
  EXPECT_EQ(set({{}, "kept"}, "new"), not_stored);
  EXPECT_EQ(set({{}, "kept"}, "new"), not_stored) << "the obstacle is still there";
  std::filesystem::remove(obstacle);
  EXPECT_EQ(set({{}, "kept"}, "new"), R"({"Attributes": [], "Value": "new"})");
  EXPECT_EQ(file(), R"({"-kept": "new"})");
}

TEST_F(ArkService, PagesEndAtTheirLimitsAndGoOnBehindAKeyThatWasRemoved) {
  std::string entries;
  for (unsigned number = 1000; number < 2000; ++number) entries += entry("d-" + std::to_string(number), "v");
  EXPECT_EQ(said(restore(entries + entry("d-2000", "v"))), bad_argument) << "one entry too many";
  ASSERT_EQ(said(restore(entries)), "nothing");
  EXPECT_EQ(set({"d", "2000"}, "v") + set({"e", "1"}, "v"), "nothingnothing");

  const Answer first = client::copy_ark_entries(operator_, "d", std::nullopt);
  EXPECT_EQ(field_of(first, wire::next_key), "1999") << "the thousandth";
  remove({"d", "1999"});
  set({"d", "1999a"}, "new");
  const Answer second = client::copy_ark_entries(operator_, "d", "1999");
  EXPECT_EQ(
      field_of(second, wire::entries_key),
      R"([{"Attributes": [], "Key": "1999a", "Value": "new"}, {"Attributes": [], "Key": "2000", "Value": "v"}])");
  EXPECT_NE(field_of(first, wire::changes_key), field_of(second, wire::changes_key));

  set({"d", "2000"}, std::string(wire::ark_page_size, 'x'));
  const auto next_after = [&](const char* key) {
    return field_of(client::copy_ark_entries(operator_, std::nullopt, key), wire::next_key);
  };
  EXPECT_EQ(next_after("d-1998"), "d-1999a") << "what follows is larger than a page";
  EXPECT_EQ(next_after("d-1999a"), "d-2000") << "and is one of its own";
}

TEST_F(ArkService, WatchersOfAKeyShareItsNotification) {
  client::Subscription subscription(root_.at(""));
  std::string detail;
  ASSERT_EQ(subscription.open(detail), client::Outcome::answered);
  wire::Notification seen;
  const auto next = [&] {
    subscription.next(seen, detail, std::chrono::seconds(5));
    return seen.name;
  };
  const std::string name = "com.norvane.corvaned.ark.a-b-c", reply = R"({"Notification": ")" + name + "\"}";
  for (unsigned others = 1; others < wire::watched_keys_limit; ++others) {
    client::watch_ark_value(operator_, {"other", std::to_string(others)});
  }
  EXPECT_EQ(said(client::watch_ark_value(operator_, {"a", "b-c"})), reply);
  EXPECT_EQ(said(client::watch_ark_value(operator_, {"a-b", "c"})), reply) << "the same composed key";
  EXPECT_EQ(client::watch_ark_value(operator_, {"one", "too many"}).response.code, 2);
  set({"a-b", "c"}, "1");
  EXPECT_EQ(next(), name) << "after a change";
  set({"a-b", "c"}, "1");
  set({"other", "1"}, "1");
  EXPECT_EQ(next(), "com.norvane.corvaned.ark.other-1") << "a set of an equal value posts nothing";
  remove({"a", "b-c"});
  EXPECT_EQ(next(), name) << "after a removal";
}

TEST_F(ArkService, BadArgumentsChangeNothing) {
  const std::string before = field_of(client::copy_ark_entries(operator_, {}, {}), wire::changes_key);
  const std::string good = entry("-good", "v");
  const std::string bad_entries[] = {
      entry("no separator", "v"),
      "<dict><key>Key</key><string>-no value</string></dict>",
      entry("-k", "v", attributes("<integer>9</integer>")),
      entry("-k", "v", attributes("<integer>1</integer><integer>1</integer>")),
  };
  for (const std::string& bad : bad_entries) EXPECT_EQ(said(restore(good + bad)), bad_argument) << bad;
  const auto repeated = plist::MutableArray::create(), megabyte = plist::MutableArray::create();
  megabyte->append(text(std::string(1u << 20, 'x')));
  for (int times = 0; times < 65; ++times) repeated->append(megabyte);
  EXPECT_EQ(said(client::set_ark_value(operator_, {{}, "k"}, repeated)), bad_argument) << "over 64 MiB, counted";
  Ref<plist::Value> nest = text("v");
  for (unsigned depth = 0; depth < wire::ark_value_depth + 1; ++depth) {
    const auto around = plist::MutableArray::create();
    around->append(std::exchange(nest, around));
  }
  EXPECT_EQ(said(client::set_ark_value(operator_, {{}, "k"}, nest)), bad_argument) << "too deep to be restored";
  EXPECT_EQ(set({{}, std::string(wire::ark_key_size, 'k')}, "v"), bad_argument);
  EXPECT_EQ(set({{}, std::string("k\0", 2)}, "v"), bad_argument);
  EXPECT_EQ(said(client::watch_ark_value(operator_, {{}, ""})), bad_argument);
  EXPECT_EQ(said(client::watch_ark_value(operator_, {{}, std::string(wire::watched_key_size, 'k')})),
            bad_argument);

  for (const auto selector : {wire::copy_ark_value, wire::remove_ark_value, wire::watch_ark_value}) {
    EXPECT_EQ(said(operator_.ask(*wire::make_request(selector))), bad_argument) << selector << " without a key";
    const auto request = wire::make_request(selector);
    request->set("Key", text("good"));
    request->set("Domain", plist::Boolean::yes());
    EXPECT_EQ(said(operator_.ask(*request)), bad_argument) << selector << " with a Boolean as domain";
  }
  EXPECT_EQ(field_of(client::copy_ark_entries(operator_, {}, {}), wire::changes_key), before);
}

}  // namespace
}  // namespace corvane
