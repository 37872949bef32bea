// A user has processes, and a process has connections. Each level keeps those with a ready connection in a second
// list, in the order of their turns. With at most some hundred connections, whatever is done once for each
// connection walks through the lists.

#include "platform/ipc/share_table.h"

namespace corvane {

struct ShareTable::Process : Turn {
  Process(User& owner, pid_t process) : user(&owner), id(process) {}

  User* user;
  pid_t id;
  size_t held = 0;
  std::list<Entry*> entries;
  TurnList<Entry> ready;

  size_t count() const { return entries.size(); }
};

struct ShareTable::User : Turn {
  explicit User(uid_t user) : id(user) {}

  uid_t id;
  size_t count = 0;
  std::list<Process> processes;
  TurnList<Process> ready;
};

ShareTable::ShareTable(size_t limit) : limit_(limit) {}

ShareTable::~ShareTable() = default;

// ---- admission ----------------------------------------------------------------------------------------

const ShareTable::User* ShareTable::find_user(uid_t id) const {
  for (const User& user : users_) {
    if (user.id == id) return &user;
  }
  return nullptr;
}

// The process with the most connections, the new one counted; null where that is the new one's, which has no
// other.
const ShareTable::Process* ShareTable::largest_process(const User& user, const PeerIdentity* added) {
  const Process* largest = nullptr;
  const Process* own = nullptr;
  for (const Process& process : user.processes) {
    if (added != nullptr && process.id == added->process) own = &process;
    if (largest == nullptr || process.count() > largest->count()) largest = &process;
  }
  if (added == nullptr) return largest;
  const size_t own_count = own == nullptr ? 1 : own->count() + 1;
  return largest != nullptr && largest->count() > own_count ? largest : own;
}

ShareTable::Entry* ShareTable::next_to_evict(const Process& process) {
  Entry* idle_longest = nullptr;
  Entry* admitted_first = nullptr;
  for (Entry* entry : process.entries) {
    const bool is_idle = entry->idle_ && !entry->is_in_list();
    if (is_idle && (idle_longest == nullptr || entry->last_active_ < idle_longest->last_active_)) {
      idle_longest = entry;
    }
    if (admitted_first == nullptr || entry->admitted_ < admitted_first->admitted_) admitted_first = entry;
  }
  return idle_longest != nullptr ? idle_longest : admitted_first;
}

ShareTable::Admission ShareTable::admission_of(PeerIdentity peer) const {
  if (size_ < limit_) return {Verdict::admit};
  const User* own = find_user(peer.user);
  const User* largest = nullptr;
  size_t most = own == nullptr ? 1 : own->count + 1;
  for (const User& user : users_) {
    if (&user == own || user.count <= most) continue;
    largest = &user;
    most = user.count;
  }
  const Process* evicted_from = nullptr;
  if (largest != nullptr) {
    evicted_from = largest_process(*largest, nullptr);
  } else if (own != nullptr) {
    evicted_from = largest_process(*own, &peer);
  }
  if (evicted_from == nullptr) return {Verdict::refuse};
  return {Verdict::evict, next_to_evict(*evicted_from)};
}

ShareTable::Entry* ShareTable::first_to_evict() const {
  const User* largest = nullptr;
  for (const User& user : users_) {
    if (largest == nullptr || user.count > largest->count) largest = &user;
  }
  return largest == nullptr ? nullptr : next_to_evict(*largest_process(*largest, nullptr));
}

ShareTable::User& ShareTable::user_of(uid_t id) {
  if (const User* user = find_user(id)) return const_cast<User&>(*user);
  return users_.emplace_back(id);
}

ShareTable::Process& ShareTable::process_of(User& user, pid_t id) {
  for (Process& process : user.processes) {
    if (process.id == id) return process;
  }
  return user.processes.emplace_back(user, id);
}

void ShareTable::add(Entry& entry, PeerIdentity peer) {
  User& user = user_of(peer.user);
  try {
    Process& process = process_of(user, peer.process);
    entry.place_ = process.entries.insert(process.entries.end(), &entry);
    entry.process_ = &process;
  } catch (...) {
    drop_if_empty(user);
    throw;
  }
  entry.table_ = this;
  ++user.count;
  ++size_;
  entry.admitted_ = entry.last_active_ = ++clock_;
}

void ShareTable::remove(Entry& entry) {
  if (entry.table_ == nullptr) return;
  if (entry.is_in_list()) make_unready(entry);
  set_held(entry, 0);
  Process& process = *entry.process_;
  process.entries.erase(entry.place_);
  entry.table_ = nullptr;
  --process.user->count;
  --size_;
  drop_if_empty(*process.user);
}

// Drops the user's processes without connections too.
void ShareTable::drop_if_empty(User& user) {
  user.processes.remove_if([](const Process& process) { return process.entries.empty(); });
  if (user.count != 0) return;
  users_.remove_if([](const User& each) { return each.count == 0; });
}

// ---- turns --------------------------------------------------------------------------------------------

void ShareTable::make_ready(Entry& entry) {
  if (entry.is_in_list()) return;
  Process& process = *entry.process_;
  User& user = *process.user;
  if (user.ready.empty()) ready_users_.push_back(user);
  if (process.ready.empty()) user.ready.push_back(process);
  process.ready.push_back(entry);
}

void ShareTable::make_unready(Entry& entry) {
  Process& process = *entry.process_;
  User& user = *process.user;
  process.ready.remove(entry);
  if (process.ready.empty()) user.ready.remove(process);
  if (user.ready.empty()) ready_users_.remove(user);
}

ShareTable::Entry* ShareTable::next_turn(bool over_budget) {
  for (User* user = ready_users_.first(); user != nullptr; user = ready_users_.after(*user)) {
    for (Process* process = user->ready.first(); process != nullptr; process = user->ready.after(*process)) {
      if (over_budget && process->held != 0) continue;
      Entry* const entry = process->ready.first();
      make_unready(*entry);
      // Whoever is still ready waits until all others had their turn.
      if (!process->ready.empty()) user->ready.move_to_end(*process);
      if (!user->ready.empty()) ready_users_.move_to_end(*user);
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
