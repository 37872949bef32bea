#include "platform/ipc/share_table.h"

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

namespace corvane {
namespace {

using Names = std::vector<std::string>;

constexpr PeerIdentity ann_mail{1000, 10};
constexpr PeerIdentity ann_music{1000, 11};
constexpr PeerIdentity bob_mail{1001, 20};
constexpr PeerIdentity carol_mail{1002, 30};

class ShareTableTest : public ::testing::Test {
 protected:
  struct Connection : ShareTable::Entry {
    std::string name;
  };

  // Answers who paid for the new connection: "nobody", the one that was evicted, or the refused one itself.
  std::string connect(const std::string& name, PeerIdentity peer) {
    const ShareTable::Admission admission = table_.admission_of(peer);
    if (admission.verdict == ShareTable::Verdict::refuse) return name;
    const auto* evicted = static_cast<const Connection*>(admission.evicted);
    if (evicted != nullptr) table_.remove(*admission.evicted);
    add(name, peer);
    return evicted != nullptr ? evicted->name : "nobody";
  }
  void add(const std::string& name, PeerIdentity peer) {
    connections_[name].name = name;
    table_.add(connections_[name], peer);
  }
  void send_request(const std::string& name) { table_.make_ready(connections_[name]); }
  // Who is served. Each sends its next request at once.
  Names serve(int turns, bool over_budget = false) {
    Names served;
    for (; turns > 0; --turns) {
      auto* connection = static_cast<Connection*>(table_.next_turn(over_budget));
      if (connection == nullptr) break;
      served.push_back(connection->name);
      table_.make_ready(*connection);
    }
    return served;
  }

  ShareTable table_{4};
  std::map<std::string, Connection> connections_;
};

TEST_F(ShareTableTest, UsersTakeTurnsThoughOneHasAHundredConnections) {
  for (int i = 100; i < 200; ++i) add("ann " + std::to_string(i), ann_mail);
  add("bob", bob_mail);
  for (auto& [name, connection] : connections_) send_request(name);
  EXPECT_EQ(serve(6), (Names{"ann 100", "bob", "ann 101", "bob", "ann 102", "bob"}));
}

TEST_F(ShareTableTest, ProcessesOfAUserThenTheirConnectionsTakeTurns) {
  for (const char* name : {"mail 1", "mail 2"}) add(name, ann_mail);
  add("music", ann_music);
  for (const char* name : {"mail 1", "mail 2", "music"}) send_request(name);
  EXPECT_EQ(serve(6), (Names{"mail 1", "music", "mail 2", "music", "mail 1", "music"}));
}

TEST_F(ShareTableTest, NoPlaceChangesWhereAnotherRequestComesOrAConnectionGoes) {
  for (const char* name : {"mail 1", "mail 2", "mail 3"}) add(name, ann_mail);
  add("music", ann_music);
  add("bob", bob_mail);
  for (const char* name : {"mail 1", "mail 2", "mail 3", "music", "bob", "mail 1"}) send_request(name);
  EXPECT_EQ(serve(4), (Names{"mail 1", "bob", "music", "bob"})) << "mail 1 had sent two requests";
  table_.remove(connections_["mail 2"]);
  EXPECT_EQ(serve(5), (Names{"mail 3", "bob", "music", "bob", "mail 1"})) << "mail 2 was next";
}

TEST_F(ShareTableTest, TheLargestUserAndItsLargestProcessMakeRoom) {
  for (const char* name : {"mail 1", "mail 2"}) connect(name, ann_mail);
  connect("music", ann_music);
  EXPECT_EQ(connect("bob 1", bob_mail), "nobody") << "there is room";
  EXPECT_EQ(table_.first_to_evict(), &connections_["mail 1"]) << "where descriptors have run out";
  EXPECT_EQ(connect("carol 1", carol_mail), "mail 1") << "ann has three, two of them in one process";
  EXPECT_EQ(connect("bob 2", bob_mail), "bob 1") << "ann and bob would have two each: bob pays himself";
  EXPECT_EQ(connect("mail 3", ann_mail), "mail 2") << "ann would have three, two of them in her mail";
  EXPECT_EQ(connect("games", {ann_mail.user, 12}), "games") << "each of ann's processes would have one";
}

TEST_F(ShareTableTest, WithOneConnectionForEachUserANewOneIsRefused) {
  for (const uid_t user : {1U, 2U, 3U, 4U}) connect("user " + std::to_string(user), {user, 1});
  EXPECT_EQ(connect("ann", ann_mail), "ann");
}

TEST_F(ShareTableTest, ForeignProcessesOfAUserAreOneProcess) {
  connect("mail", ann_mail);
  for (const char* name : {"foreign 1", "foreign 2"}) connect(name, {ann_mail.user, 0});
  connect("bob foreign", {bob_mail.user, 0});
  EXPECT_EQ(connect("music", ann_music), "foreign 1");
}

TEST_F(ShareTableTest, IdleForLongestGoesFirstThenAdmittedFirst) {
  for (const char* name : {"ready", "answering", "just active", "quiet"}) connect(name, ann_mail);
  send_request("ready");
  table_.set_idle(connections_["answering"], false);
  table_.became_active(connections_["just active"]);
  EXPECT_EQ(connect("bob", bob_mail), "quiet");
  EXPECT_EQ(connect("carol", carol_mail), "just active");
  EXPECT_EQ(connect("ann", ann_mail), "ready") << "nobody is idle: the one admitted first";
  EXPECT_FALSE(table_.has_ready()) << "its request is dropped unserved";
}

TEST_F(ShareTableTest, OverTheBudgetOnlyProcessesThatHoldNothingAreServed) {
  for (const char* name : {"mail 1", "mail 2"}) connect(name, ann_mail);
  connect("music", ann_music);
  connect("bob", bob_mail);
  for (const char* name : {"mail 1", "music", "bob"}) send_request(name);
  for (const char* name : {"mail 2", "bob"}) table_.set_held(connections_[name], 100);
  EXPECT_EQ(serve(2, true), (Names{"music", "music"}));
  table_.remove(connections_["mail 2"]);
  EXPECT_EQ(serve(2, true), (Names{"mail 1", "music"})) << "what mail 2 held went with it";
  EXPECT_EQ(serve(3, false), (Names{"bob", "mail 1", "bob"})) << "below the budget everybody has turns again";
}

}  // namespace
}  // namespace corvane
