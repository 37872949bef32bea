// Users, processes and connections are nodes of lists. Each level keeps those with a ready connection in one list,
// in the order of their turns, and the others in a second one; nodes move between the two without allocating. With
// at most some hundred connections, whatever is done once for each connection walks through the lists.

#include "platform/ipc/share_table.h"

#include <algorithm>
#include <iterator>

namespace corvane {

struct ShareTable::Process {
  Process(User& owner, pid_t process) : user(&owner), id(process) {}

  User* user;
  pid_t id;
  size_t count = 0;
  size_t held = 0;
  std::list<Entry*> ready;
  std::list<Entry*> others;
};

struct ShareTable::User {
  explicit User(uid_t user) : id(user) {}

  uid_t id;
  size_t count = 0;
  std::list<Process> ready;
  std::list<Process> others;
};

namespace {

// Moves a node to the end of a list, from whichever of the two it is in.
template <class Node>
void move_to_end(std::list<Node>& from, Node& node, std::list<Node>& to) {
  const auto place = std::find_if(from.begin(), from.end(), [&](const Node& each) { return &each == &node; });
  to.splice(to.end(), from, place);
}

}  // namespace

ShareTable::ShareTable(size_t limit) : limit_(limit) {}

ShareTable::~ShareTable() = default;

// ---- admission ----------------------------------------------------------------------------------------

const ShareTable::User* ShareTable::find_user(uid_t id) const {
  for (const auto* users : {&ready_users_, &other_users_}) {
    for (const User& user : *users) {
      if (user.id == id) return &user;
    }
  }
  return nullptr;
}

// The process with the most connections, the new one counted; null where that is the new one's, which has no
// other.
const ShareTable::Process* ShareTable::largest_process(const User& user, const PeerIdentity* added) {
  const Process* largest = nullptr;
  const Process* own = nullptr;
  for (const auto* processes : {&user.ready, &user.others}) {
    for (const Process& process : *processes) {
      if (added != nullptr && process.id == added->process) own = &process;
      if (largest == nullptr || process.count > largest->count) largest = &process;
    }
  }
  if (added == nullptr) return largest;
  const size_t own_count = own == nullptr ? 1 : own->count + 1;
  return largest != nullptr && largest->count > own_count ? largest : own;
}

template <class Visit>
void ShareTable::for_each_entry(const Process& process, Visit visit) {
  for (const auto* entries : {&process.ready, &process.others}) {
    for (Entry* entry : *entries) visit(*entry);
  }
}

ShareTable::Entry* ShareTable::first_to_go(const Process& process) {
  Entry* idle_longest = nullptr;
  Entry* admitted_first = nullptr;
  for_each_entry(process, [&](Entry& entry) {
    const bool is_idle = entry.idle_ && !entry.ready_;
    if (is_idle && (idle_longest == nullptr || entry.last_active_ < idle_longest->last_active_)) {
      idle_longest = &entry;
    }
    if (admitted_first == nullptr || entry.admitted_ < admitted_first->admitted_) admitted_first = &entry;
  });
  return idle_longest != nullptr ? idle_longest : admitted_first;
}

ShareTable::Admission ShareTable::admission_of(PeerIdentity peer) const {
  if (size_ < limit_) return {Verdict::admit};
  const User* own = find_user(peer.user);
  const User* largest = nullptr;
  size_t most = own == nullptr ? 1 : own->count + 1;
  for (const auto* users : {&ready_users_, &other_users_}) {
    for (const User& user : *users) {
      if (&user == own || user.count <= most) continue;
      largest = &user;
      most = user.count;
    }
  }
  const Process* payer = nullptr;
  if (largest != nullptr) {
    payer = largest_process(*largest, nullptr);
  } else if (own != nullptr) {
    payer = largest_process(*own, &peer);
  }
  if (payer == nullptr) return {Verdict::refuse};
  return {Verdict::evict, first_to_go(*payer)};
}

ShareTable::Entry* ShareTable::first_to_evict() const {
  const User* largest = nullptr;
  for (const auto* users : {&ready_users_, &other_users_}) {
    for (const User& user : *users) {
      if (largest == nullptr || user.count > largest->count) largest = &user;
    }
  }
  return largest == nullptr ? nullptr : first_to_go(*largest_process(*largest, nullptr));
}

ShareTable::User& ShareTable::user_of(uid_t id) {
  if (const User* user = find_user(id)) return const_cast<User&>(*user);
  return other_users_.emplace_back(id);
}

ShareTable::Process& ShareTable::process_of(User& user, pid_t id) {
  for (auto* processes : {&user.ready, &user.others}) {
    for (Process& process : *processes) {
      if (process.id == id) return process;
    }
  }
  return user.others.emplace_back(user, id);
}

void ShareTable::add(Entry& entry, PeerIdentity peer) {
  User& user = user_of(peer.user);
  try {
    Process& process = process_of(user, peer.process);
    entry.place_ = process.others.insert(process.others.end(), &entry);
    entry.process_ = &process;
  } catch (...) {
    drop_if_empty(user);
    throw;
  }
  entry.table_ = this;
  ++entry.process_->count;
  ++user.count;
  ++size_;
  entry.admitted_ = entry.last_active_ = ++clock_;
}

void ShareTable::remove(Entry& entry) {
  if (entry.table_ == nullptr) return;
  if (entry.ready_) make_unready(entry);
  set_held(entry, 0);
  Process& process = *entry.process_;
  process.others.erase(entry.place_);
  entry.table_ = nullptr;
  --process.count;
  --process.user->count;
  --size_;
  drop_if_empty(*process.user);
}

// Drops the user's processes without connections too.
void ShareTable::drop_if_empty(User& user) {
  user.others.remove_if([](const Process& process) { return process.count == 0; });
  if (user.count != 0) return;
  other_users_.remove_if([](const User& each) { return each.count == 0; });
}

// ---- turns --------------------------------------------------------------------------------------------

void ShareTable::make_ready(Entry& entry) {
  if (entry.ready_) return;
  entry.ready_ = true;
  Process& process = *entry.process_;
  User& user = *process.user;
  if (user.ready.empty()) move_to_end(other_users_, user, ready_users_);
  if (process.ready.empty()) move_to_end(user.others, process, user.ready);
  process.ready.splice(process.ready.end(), process.others, entry.place_);
}

void ShareTable::make_unready(Entry& entry) {
  entry.ready_ = false;
  Process& process = *entry.process_;
  User& user = *process.user;
  process.others.splice(process.others.end(), process.ready, entry.place_);
  if (process.ready.empty()) move_to_end(user.ready, process, user.others);
  if (user.ready.empty()) move_to_end(ready_users_, user, other_users_);
}

ShareTable::Entry* ShareTable::next_turn(bool over_budget) {
  for (User& user : ready_users_) {
    for (Process& process : user.ready) {
      if (over_budget && process.held != 0) continue;
      Entry* entry = process.ready.front();
      make_unready(*entry);
      // Whoever is still ready waits until all others had their turn.
      if (!process.ready.empty()) move_to_end(user.ready, process, user.ready);
      if (!user.ready.empty()) move_to_end(ready_users_, user, ready_users_);
      return entry;
    }
  }
  return nullptr;
}

// ---- memory -------------------------------------------------------------------------------------------

void ShareTable::set_held(Entry& entry, size_t bytes) {
  const size_t before = entry.held_;
  entry.held_ = bytes;
  entry.process_->held += bytes - before;
}

}  // namespace corvane
