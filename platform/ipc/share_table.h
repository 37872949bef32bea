#pragma once

#include <cstddef>
#include <cstdint>
#include <list>
#include <sys/types.h>

#include "platform/ipc/turn_list.h"

namespace corvane {

/// Who is at the other end of a connection, by SO_PEERCRED. Process 0 is one of a foreign namespace.
struct PeerIdentity {
  uid_t user;
  pid_t process;
};

/// Who gets what of a listener: its connections are accounted to users and, within a user, to processes. Users
/// share equally, a user's processes share its part, a process's connections share the process's part. Decides who
/// makes room when all connections are taken, whose request is served next, and who waits while memory is over its
/// budget. Knows nothing of sockets. One thread.
class ShareTable {
 public:
  struct Process;
  struct User;

  /// A connection's entry, owned by the connection. It leaves the table when it is destroyed, which must come
  /// first.
  class Entry : public Turn {
   public:
    Entry() = default;
    ~Entry() {
      if (table_ != nullptr) table_->remove(*this);
    }
    Entry(const Entry&) = delete;
    Entry& operator=(const Entry&) = delete;

   private:
    friend class ShareTable;
    ShareTable* table_ = nullptr;  ///< null while it is in none
    Process* process_ = nullptr;
    std::list<Entry*>::iterator place_;
    bool idle_ = true;
    uint64_t admitted_ = 0;     ///< when, as a number that grows with each admission
    uint64_t last_active_ = 0;  ///< likewise, with each activity
    size_t held_ = 0;
  };

  explicit ShareTable(size_t limit);
  ~ShareTable();
  ShareTable(const ShareTable&) = delete;
  ShareTable& operator=(const ShareTable&) = delete;

  // ---- admission ----

  enum class Verdict {
    admit,   ///< there is room
    evict,   ///< there is room once `evicted` is removed
    refuse,  ///< the new connection's own process would have to give one up, and has no other
  };
  struct Admission {
    Verdict verdict;
    Entry* evicted = nullptr;
  };

  /// What becomes of a new connection. A full table makes room at the cost of the user with the most connections,
  /// the new one counted, and in it of the process with the most; on a tie the new connection's own user and
  /// process give one up. There the connection idle for longest is evicted, or, if none is idle, the one admitted
  /// first.
  Admission admission_of(PeerIdentity peer) const;
  /// The connection that would make room for one of somebody else; null where there is none.
  Entry* first_to_evict() const;
  /// Whatever the limit. A new entry is idle and not ready. Throws std::bad_alloc, and leaves the entry out.
  void add(Entry& entry, PeerIdentity peer);
  /// Nothing where the entry is not in the table.
  void remove(Entry& entry);
  size_t size() const { return size_; }

  /// Says that the connection's client did something just now.
  void became_active(Entry& entry) { entry.last_active_ = ++clock_; }
  /// A connection is idle while no request of it waits and no answer to it is pending.
  void set_idle(Entry& entry, bool idle) { entry.idle_ = idle; }

  // ---- turns ----

  /// The connection has a request to serve.
  void make_ready(Entry& entry);
  bool has_ready() const { return !ready_users_.empty(); }
  /// Whose request is served next: users in turn, their processes in turn, their connections in turn. The entry is
  /// not ready any more. Null where none is ready; with `over_budget`, where every process with a ready connection
  /// holds memory.
  Entry* next_turn(bool over_budget);

  // ---- memory ----

  /// The bytes of memory that the connection's answers hold.
  void set_held(Entry& entry, size_t bytes);

 private:
  static const Process* largest_process(const User& user, const PeerIdentity* added);
  static Entry* next_to_evict(const Process& process);

  const User* find_user(uid_t id) const;
  User& user_of(uid_t id);
  static Process& process_of(User& user, pid_t id);
  void drop_if_empty(User& user);
  void make_unready(Entry& entry);

  const size_t limit_;
  size_t size_ = 0;
  uint64_t clock_ = 0;
  std::list<User> users_;
  TurnList<User> ready_users_;  ///< those with a ready connection, the next one first
};

}  // namespace corvane
