#pragma once

#include <asio/local/stream_protocol.hpp>
#include <asio/steady_timer.hpp>

#include <chrono>
#include <functional>
#include <string>
#include <sys/types.h>

#include "platform/descriptor.h"
#include "platform/ipc/share_table.h"
#include "wire/limits.h"

namespace corvane {

/// How many connections this process has the descriptors for.
wire::ConnectionLimits connection_limits();

/// Who is at the other end of a connection. A peer of which nothing can be known counts as a user of its own.
PeerIdentity identity_of(int socket);

/// A listening local stream socket at a path. One that the service manager has handed over is used as it is, with
/// its mode and backlog, and stays when this ends. A path that cannot be bound is tried again every few seconds,
/// and reported once for each reason; while there are no descriptors to accept with, connections wait in the
/// backlog. Everything happens on the thread of `context`, where nothing may run any more when this is destroyed.
class ListeningSocket {
 public:
  struct Handlers {
    /// Clients can connect from now on. Once; may be null.
    std::function<void()> listening;
    /// Owns the socket of a new connection, which does not block.
    std::function<void(int socket)> accepted;
    /// A connection waits, and there is no descriptor to accept it with.
    std::function<void()> out_of_descriptors;
  };

  /// Owns the socket `handed_over`, unless that is -1.
  ListeningSocket(std::string path, mode_t mode, int handed_over, asio::io_context& context, Handlers handlers);
  /// Unlinks what it has bound, and closes.
  ~ListeningSocket();

  const std::string& path() const { return path_; }

  /// Listens, and accepts whatever comes.
  void open();
  /// After std::bad_alloc: waits again for whatever is due, unless it is still waited for.
  void rearm();
  /// Accepts all connections that are in the backlog now.
  void accept_backlog() { accept_until(std::chrono::steady_clock::time_point::max()); }

  /// Whether the kernel refuses descriptors that clients pass along (platform/ipc/passed_descriptors.h), for the
  /// connection that is being accepted.
  bool refuses_descriptors() const { return refuses_descriptors_ && !accepts_older_; }

 private:
  bool listen();
  int take_handed_over();
  void accept_until(std::chrono::steady_clock::time_point end);
  void retry_after(std::chrono::milliseconds delay);

  const std::string path_;
  const mode_t mode_;
  const Handlers handlers_;
  Descriptor handed_over_;
  asio::local::stream_protocol::acceptor acceptor_;
  asio::steady_timer retry_timer_;
  bool opened_ = false;
  bool pending_ = false;   ///< a wait for a connection or for the retry timer is under way
  int bind_error_ = 0;     ///< the one reported last
  bool is_bound_ = false;  ///< by this object
  bool refuses_descriptors_ = false;
  bool accepts_older_ =
      false;  ///< connections from before it was handed over, which may carry descriptors already
};

}  // namespace corvane
