#include <gtest/gtest.h>

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

Ref<plist::Value> text(std::string_view utf8) { return plist::String::create(utf8); }

/// What an answer says: its dictionary, "nothing", or its error.
std::string said(const Answer& answer) {
  if (answer.outcome != client::Outcome::answered) return "no answer: " + answer.detail;
  const wire::Response& response = answer.response;
  if (response.failed) return "code " + std::to_string(response.code) + ": " + response.description;
  return response.reply ? plist::describe(response.reply.get()) : "nothing";
}

/// What a page says of its entries, "KEY=VALUE" each.
Lines entries_of(const Answer& page) {
  Lines entries;
  const plist::Value* array = page.response.reply ? page.response.reply->get(wire::entries_key) : nullptr;
  if (array == nullptr) return {said(page)};
  for (const Ref<plist::Value>& item : plist::cast<plist::Array>(array)->items()) {
    const auto* entry = plist::cast<plist::Dictionary>(item.get());
    entries.push_back(plist::describe(entry->get("Key")) + "=" + plist::describe(entry->get("Value")));
  }
  return entries;
}

std::string field_of(const Answer& answer, std::string_view name) {
  return answer.response.reply ? plist::describe(answer.response.reply->get(name)) : said(answer);
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
    const std::string key = std::to_string(step * 7 % 5);
    const std::string before =
        model.count(key) != 0 ? R"({"Attributes": [], "Value": ")" + model[key] + "\"}" : "nothing";
    EXPECT_EQ(get({"domain", key}), before);
    if (step % 3 == 2) {
      EXPECT_EQ(remove({"domain", key}), before);
      model.erase(key);
    } else {
      model[key] = std::to_string(step);
      EXPECT_EQ(set({"domain", key}, model[key]), before);
    }
    std::string expected;
    for (const auto& [name, value] : model) expected += ", \"domain-" + name + "\": \"" + value + "\"";
    EXPECT_EQ(file(), expected.empty() ? "(null)" : "{" + expected.substr(2) + "}");
  }
}

// What was set under inherited attributes was not counted as unsaved, and so not stored.
TEST_F(ArkService, RestoredEntriesHaveJustTheirOwnAttributesAndAreStored) {
  EXPECT_EQ(said(client::set_ark_attributes(operator_, {"cache", {}}, {7, 1})), R"({"Attributes": []})");
  EXPECT_EQ(set({"cache", "Inherits"}, "1"), "nothing");
  EXPECT_EQ(said(restore(entry("cache-A", "first") + entry("cache-B-C", "b", attributes("<integer>5</integer>")) +
                         entry("cache-T", "t", attributes("<integer>1</integer>")) + entry("cache-A", "last"))),
            "nothing");
  EXPECT_EQ(get({"cache", "Inherits"}), R"({"Attributes": [1, 7], "Value": "1"})");
  EXPECT_EQ(get({"cache", "A"}), R"({"Attributes": [], "Value": "last"})");
  EXPECT_EQ(get({"cache", "B-C"}), R"({"Attributes": [5], "Value": "b"})");
  EXPECT_EQ(file(), R"({"cache-A": "last", "cache-B-C": "b"})");

  EXPECT_EQ(said(client::set_ark_attributes(operator_, {"cache", "T"}, {})), R"({"Attributes": [1]})");
  EXPECT_EQ(file(), R"({"cache-A": "last", "cache-B-C": "b", "cache-T": "t"})");
}

TEST_F(ArkService, PagesGoOnBehindAKeyThatWasRemoved) {
  std::string entries;
  for (unsigned number = 1000; number < 2000; ++number) entries += entry("d-" + std::to_string(number), "v");
  ASSERT_EQ(said(restore(entries)), "nothing");
  EXPECT_EQ(set({"d", "2000"}, "v") + set({"e", "1"}, "v"), "nothingnothing");

  const Answer first = client::copy_ark_entries(operator_, "d", std::nullopt);
  EXPECT_EQ(entries_of(first).size(), wire::ark_page_entries);
  EXPECT_EQ(field_of(first, wire::next_key), "1999");
  remove({"d", "1999"});
  set({"d", "1999a"}, "new");
  const Answer second = client::copy_ark_entries(operator_, "d", "1999");
  EXPECT_EQ(entries_of(second), (Lines{"1999a=new", "2000=v"}));
  EXPECT_EQ(field_of(second, wire::next_key), "(null)");
  EXPECT_NE(field_of(first, wire::changes_key), field_of(second, wire::changes_key));
  EXPECT_EQ(entries_of(client::copy_ark_entries(operator_, std::nullopt, "d-1999a")),
            (Lines{"d-2000=v", "e-1=v"}));
}

TEST_F(ArkService, APageEndsAtAMegabyteButTakesOneEntryOfAnySize) {
  const std::string large(wire::ark_page_size, 'x'), half(wire::ark_page_size / 2, 'x');
  for (const char* key : {"1", "4"}) set({std::nullopt, key}, half);
  set({std::nullopt, "2"}, half.substr(1000));
  set({std::nullopt, "3"}, large);
  Lines pages;
  std::optional<std::string> after;
  for (unsigned asked = 0; asked < 4; ++asked) {
    const Answer page = client::copy_ark_entries(operator_, std::nullopt, after);
    std::string keys;
    for (const std::string& found : entries_of(page)) keys += found.substr(0, found.find('='));
    pages.push_back(keys);
    after = field_of(page, wire::next_key);
    if (*after == "(null)") break;
  }
  EXPECT_EQ(pages, (Lines{"-1-2", "-3", "-4"}));
}

TEST_F(ArkService, WatchersOfAKeyShareItsNotification) {
  client::Subscription subscription(root_.at(""));
  std::string detail;
  ASSERT_EQ(subscription.open(detail), client::Outcome::answered);
  const auto next = [&] {
    wire::Notification notification;
    subscription.next(notification, detail, std::chrono::seconds(5));
    return notification.name;
  };
  const std::string name = "com.norvane.corvaned.ark.a-b-c", reply = R"({"Notification": ")" + name + "\"}";
  for (unsigned others = 1; others < wire::watched_keys_limit; ++others) {
    client::watch_ark_value(operator_, {"other", std::to_string(others)});
  }
  EXPECT_EQ(said(client::watch_ark_value(operator_, {"a", "b-c"})), reply);
  EXPECT_EQ(said(client::watch_ark_value(operator_, {"a-b", "c"})), reply) << "the same composed key";
  EXPECT_EQ(said(client::watch_ark_value(operator_, {"one", "too many"})).substr(0, 30),
            "code 2: 64 keys are watched al");
  set({"a-b", "c"}, "1");
  EXPECT_EQ(next(), name) << "after a change";
  set({"a-b", "c"}, "1");
  set({"other", "1"}, "1");
  EXPECT_EQ(next(), "com.norvane.corvaned.ark.other-1") << "after a set of an equal value, which posts nothing";
  remove({"a", "b-c"});
  EXPECT_EQ(next(), name) << "after a removal";
}

TEST_F(ArkService, BadArgumentsChangeNothing) {
  const std::string before = field_of(client::copy_ark_entries(operator_, {}, {}), wire::changes_key);
  const std::string good = entry("-good", "v"), key = "<key>Key</key><string>k</string>";
  const std::string bad_entries[] = {
      "<string>no entry</string>",
      "<dict/>",
      entry("no separator", "v"),
      "<dict><key>Key</key><string>-no value</string></dict>",
      "<dict><key>Key</key><integer>1</integer><key>Value</key><true/></dict>",
      entry("-k", "v", "<key>Attributes</key><integer>1</integer>"),
      entry("-k", "v", attributes("<integer>9</integer>")),
      entry("-k", "v", attributes("<integer>-1</integer>")),
      entry("-k", "v", attributes("<real>1</real>")),
      entry("-k", "v", attributes("<integer>1</integer><integer>1</integer>")),
  };
  for (const std::string& bad : bad_entries) EXPECT_EQ(said(restore(good + bad)), bad_argument) << bad;
  std::string too_many;
  for (size_t count = 0; count <= wire::ark_restore_entries; ++count) too_many += good;
  EXPECT_EQ(said(restore(too_many)), bad_argument) << "one entry too many";
  const std::string megabyte = "<string>" + std::string(1u << 20, 'x') + "</string>";
  std::string repeated = "<array>";
  for (int times = 0; times < 65; ++times) repeated += megabyte;
  EXPECT_EQ(said(client::set_ark_value(operator_, {{}, "k"}, plist_of(repeated + "</array>"))), bad_argument)
      << "64 MiB and more, of which the request has one";
  EXPECT_EQ(said(client::watch_ark_value(operator_, {{}, ""})), bad_argument);
  EXPECT_EQ(said(client::watch_ark_value(operator_, {{}, std::string(wire::watched_key_size, 'k')})),
            bad_argument);

  const auto ask = [&](std::string_view selector, const std::string& arguments) {
    const std::string request =
        "<dict><key>Request</key><string>" + std::string(selector) + "</string>" + arguments;
    return said(operator_.ask(*plist::cast<plist::Dictionary>(plist_of(request + "</dict>").get())));
  };
  const std::string number_as_domain = key + "<key>Domain</key><integer>1</integer><key>Value</key><true/>";
  for (const std::string_view selector :
       {wire::copy_ark_value, wire::set_ark_value, wire::remove_ark_value, wire::watch_ark_value}) {
    EXPECT_EQ(ask(selector, "<key>Value</key><true/>"), bad_argument) << selector << " without a key";
    EXPECT_EQ(ask(selector, number_as_domain), bad_argument) << selector << " with a number as domain";
  }
  EXPECT_EQ(ask(wire::set_ark_value, key), bad_argument) << "no value";
  EXPECT_EQ(ask(wire::set_ark_attributes, key + "<key>Attributes</key><dict/>"), bad_argument);
  EXPECT_EQ(ask(wire::set_ark_attributes, number_as_domain + attributes("")), bad_argument);
  EXPECT_EQ(ask(wire::copy_ark_entries, "<key>After</key><data></data>"), bad_argument);
  EXPECT_EQ(ask(wire::restore_ark_entries, "<key>Entries</key><dict/>"), bad_argument);
  EXPECT_EQ(field_of(client::copy_ark_entries(operator_, {}, {}), wire::changes_key), before);
}

}  // namespace
}  // namespace corvane
