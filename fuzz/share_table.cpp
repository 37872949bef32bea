// Drives the share table with events and compares it with a plain model: a vector of connections that is searched
// from end to end for every answer. The input: one byte for the limit, and two for each event.

#include "platform/ipc/share_table.h"

#include <algorithm>
#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <tuple>
#include <utility>
#include <vector>

#include "fuzz/ensure.h"

namespace corvane::fuzz {

namespace {

constexpr size_t most_connections = 16;

struct Connection : ShareTable::Entry {
  explicit Connection(PeerIdentity identity) : peer(identity) {}

  bool is_of(uid_t user) const { return peer.user == user; }
  bool is_of(PeerIdentity other) const { return peer.user == other.user && peer.process == other.process; }

  const PeerIdentity peer;
  bool ready = false;
  bool idle = true;
  size_t held = 0;
  // When things happened, as numbers that grow.
  uint64_t admitted = 0;
  uint64_t last_active = 0;
  uint64_t ready_since = 0;
};

class Run {
 public:
  explicit Run(size_t limit) : limit_(limit), table_(limit) {}

  void handle(uint8_t event, uint8_t argument);

 private:
  using Process = std::pair<uid_t, pid_t>;
  static Process process_of(const Connection& connection) {
    return {connection.peer.user, connection.peer.process};
  }

  // ---- the model ----

  /// The connections of a user or a process, and whether one of them has a request to serve.
  template <class Who>
  size_t count(Who who) const {
    return static_cast<size_t>(
        std::count_if(all_.begin(), all_.end(), [&](auto& each) { return each->is_of(who); }));
  }
  template <class Who>
  bool has_ready(Who who) const {
    return std::any_of(all_.begin(), all_.end(), [&](auto& each) { return each->ready && each->is_of(who); });
  }
  size_t held(PeerIdentity process) const;
  bool is_entitled(const Connection& connection, bool over_budget) const;
  bool has_entitled(uid_t user, bool over_budget) const;
  const Connection* first_to_go(PeerIdentity process) const;
  Connection* next(bool over_budget) const;
  std::set<uid_t> users() const;

  // ---- what must hold ----

  void expect_largest(const Connection& evicted, const PeerIdentity* arrival) const;
  void expect_fair(const Connection& evicted, PeerIdentity arrival) const;
  void expect_nobody_passed_over(uid_t served, bool over_budget);
  void expect_totals() const;

  // ---- events ----

  void connect(PeerIdentity peer);
  void remove(const ShareTable::Entry& connection);
  void make_ready(Connection& connection);
  void take_turn(bool over_budget, bool has_more);

  const size_t limit_;
  ShareTable table_;
  uint64_t now_ = 0;
  std::vector<std::unique_ptr<Connection>> all_;
  /// When users and processes with a waiting request last had a turn, or else when the first request came.
  std::map<uid_t, uint64_t> user_since_;
  std::map<Process, uint64_t> process_since_;
  /// For a user whose requests wait: who has had a turn meanwhile.
  std::map<uid_t, std::set<uid_t>> served_meanwhile_;
};

// ---- the model ----------------------------------------------------------------------------------------

size_t Run::held(PeerIdentity process) const {
  size_t sum = 0;
  for (const auto& each : all_) sum += each->is_of(process) ? each->held : 0;
  return sum;
}

bool Run::is_entitled(const Connection& connection, bool over_budget) const {
  return connection.ready && (!over_budget || held(connection.peer) == 0);
}

bool Run::has_entitled(uid_t user, bool over_budget) const {
  return std::any_of(all_.begin(), all_.end(),
                     [&](auto& each) { return each->is_of(user) && is_entitled(*each, over_budget); });
}

std::set<uid_t> Run::users() const {
  std::set<uid_t> users;
  for (const auto& each : all_) users.insert(each->peer.user);
  return users;
}

const Connection* Run::first_to_go(PeerIdentity process) const {
  const Connection* idle_longest = nullptr;
  const Connection* admitted_first = nullptr;
  for (const auto& each : all_) {
    if (!each->is_of(process)) continue;
    if (admitted_first == nullptr || each->admitted < admitted_first->admitted) admitted_first = each.get();
    if (!each->idle || each->ready) continue;
    if (idle_longest == nullptr || each->last_active < idle_longest->last_active) idle_longest = each.get();
  }
  return idle_longest != nullptr ? idle_longest : admitted_first;
}

// The user who has waited for longest, its process that has, and its connection that has.
Connection* Run::next(bool over_budget) const {
  const auto waiting = [this](const Connection& each) {
    return std::tuple(user_since_.at(each.peer.user), process_since_.at(process_of(each)), each.ready_since);
  };
  Connection* next = nullptr;
  for (const auto& each : all_) {
    if (!is_entitled(*each, over_budget)) continue;
    if (next == nullptr || waiting(*each) < waiting(*next)) next = each.get();
  }
  return next;
}

// ---- what must hold -----------------------------------------------------------------------------------

// Its user has the most connections, and in it its process, the new connection counted. On a tie the new
// connection's own user and process pay.
void Run::expect_largest(const Connection& evicted, const PeerIdentity* arrival) const {
  const auto user_count = [&](uid_t user) {
    return count(user) + (arrival != nullptr && arrival->user == user ? 1 : 0);
  };
  const auto process_count = [&](PeerIdentity process) {
    const bool is_own = arrival != nullptr && arrival->user == process.user && arrival->process == process.process;
    return count(process) + (is_own ? 1 : 0);
  };
  const PeerIdentity payer = evicted.peer;
  for (const auto& each : all_) {
    ENSURE(user_count(payer.user) >= user_count(each->peer.user));
    ENSURE(!each->is_of(payer.user) || process_count(payer) >= process_count(each->peer));
  }
  ENSURE(&evicted == first_to_go(payer));
  if (arrival == nullptr) return;
  if (payer.user != arrival->user) {
    ENSURE(user_count(payer.user) > user_count(arrival->user));
  } else if (payer.process != arrival->process) {
    ENSURE(process_count(payer) > process_count(*arrival));
  }
}

// Whoever has less than its share loses nothing to others.
void Run::expect_fair(const Connection& evicted, PeerIdentity arrival) const {
  if (evicted.is_of(arrival.user)) return;
  std::set<uid_t> sharing = users();
  sharing.insert(arrival.user);
  ENSURE(count(evicted.peer.user) * sharing.size() > limit_);
}

// Between two turns of one user every other one whose requests wait has had one.
void Run::expect_nobody_passed_over(uid_t served, bool over_budget) {
  for (const uid_t user : users()) {
    if (user == served || !has_entitled(user, over_budget)) {
      served_meanwhile_[user].clear();
    } else {
      ENSURE(served_meanwhile_[user].insert(served).second);
    }
  }
}

void Run::expect_totals() const {
  const bool ready = std::any_of(all_.begin(), all_.end(), [](const auto& each) { return each->ready; });
  ENSURE(table_.size() == all_.size());
  ENSURE(table_.has_ready() == ready);
  const auto* first = static_cast<const Connection*>(table_.first_to_evict());
  ENSURE((first == nullptr) == all_.empty());
  if (first != nullptr) expect_largest(*first, nullptr);
}

// ---- events -------------------------------------------------------------------------------------------

void Run::connect(PeerIdentity peer) {
  const ShareTable::Admission admission = table_.admission_of(peer);
  ENSURE((admission.verdict == ShareTable::Verdict::admit) == (all_.size() < limit_));
  ENSURE((admission.verdict == ShareTable::Verdict::evict) == (admission.evicted != nullptr));
  if (admission.verdict == ShareTable::Verdict::refuse) {
    for (const auto& each : all_) {
      ENSURE(count(each->peer.user) <= count(peer.user) + 1);
      ENSURE(!each->is_of(peer.user) || count(each->peer) == 1);
      ENSURE(!each->is_of(peer));
    }
    return;
  }
  if (admission.evicted != nullptr) {
    const Connection& evicted = static_cast<Connection&>(*admission.evicted);
    expect_largest(evicted, &peer);
    expect_fair(evicted, peer);
    remove(evicted);
  }
  Connection& added = *all_.emplace_back(std::make_unique<Connection>(peer));
  table_.add(added, peer);
  added.admitted = added.last_active = ++now_;
}

void Run::remove(const ShareTable::Entry& connection) {
  const auto found = std::find_if(all_.begin(), all_.end(), [&](auto& each) { return each.get() == &connection; });
  table_.remove(**found);
  const uid_t user = (*found)->peer.user;
  all_.erase(found);
  if (!has_ready(user)) served_meanwhile_[user].clear();
}

void Run::make_ready(Connection& connection) {
  table_.make_ready(connection);
  if (connection.ready) return;
  ++now_;
  if (!has_ready(connection.peer.user)) user_since_[connection.peer.user] = now_;
  if (!has_ready(connection.peer)) process_since_[process_of(connection)] = now_;
  connection.ready = true;
  connection.ready_since = now_;
}

void Run::take_turn(bool over_budget, bool has_more) {
  Connection* const expected = next(over_budget);
  auto* const served = static_cast<Connection*>(table_.next_turn(over_budget));
  ENSURE(served == expected);
  if (served == nullptr) return;
  expect_nobody_passed_over(served->peer.user, over_budget);
  user_since_[served->peer.user] = process_since_[process_of(*served)] = ++now_;
  served->ready = false;
  if (has_more) make_ready(*served);
}

void Run::handle(uint8_t event, uint8_t argument) {
  const PeerIdentity peer{argument % 4u, argument / 4 % 4};
  if (event % 8 == 0) connect(peer);
  if (event % 8 == 1) take_turn((argument & 1) != 0, (argument & 2) != 0);
  if (!all_.empty()) {
    Connection& connection = *all_[argument % all_.size()];
    switch (event % 8) {
      case 2:
        remove(connection);
        break;
      case 3:
      case 4:
        make_ready(connection);
        break;
      case 5:
        table_.became_active(connection);
        connection.last_active = ++now_;
        break;
      case 6:
        connection.idle = argument < 128;
        table_.set_idle(connection, connection.idle);
        break;
      case 7:
        connection.held = argument / 64;
        table_.set_held(connection, connection.held);
        break;
    }
  }
  expect_totals();
}

}  // namespace
}  // namespace corvane::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
  using namespace corvane;
  if (size == 0) return 0;
  fuzz::Run run(bytes[0] % fuzz::most_connections + 1);
  for (size_t at = 1; at + 1 < size; at += 2) run.handle(bytes[at], bytes[at + 1]);
  return 0;
}
