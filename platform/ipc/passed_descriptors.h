#pragma once

#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <sys/types.h>
#include <thread>
#include <vector>

/// Descriptors that clients pass along with their bytes (SCM_RIGHTS). The daemon wants none, and its threads that
/// serve must close none: closing can block, for example in a TCP socket that lingers.
namespace corvane {

/// Has the kernel refuse them (SO_PASSRIGHTS, Linux 6.16 and later): a client that sends one gets an error. Called
/// for a listening socket before listen(2), it holds for all its connections. False where the kernel does not know
/// the option.
bool refuse_passed_descriptors(int socket);

/// The next bytes of a connection.
struct Peeked {
  ssize_t count;  ///< how many were copied; 0 at the end of the stream; -1 with errno set where none have come
  bool has_descriptors;
};

/// Copies the next bytes, which stay where they are, and tells whether descriptors come with them. To receive as
/// many bytes afterwards takes none along when there were none.
Peeked peek_for_descriptors(int socket, void* buffer, size_t size);

/// A thread that closes sockets whose unread bytes may have descriptors with them. A close that blocks is
/// interrupted as soon as the next socket comes. The thread is started by the first socket.
class SocketCloser {
 public:
  SocketCloser() = default;
  /// Does not wait: what is not closed by then is closed at the end of the process.
  ~SocketCloser();
  SocketCloser(const SocketCloser&) = delete;
  SocketCloser& operator=(const SocketCloser&) = delete;

  /// Owns the socket from now on. Never blocks, unless there is no memory for the thread. One thread.
  void close(int socket) noexcept;

 private:
  void run();

  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<int> sockets_;
  bool closing_ = false;
  bool stopped_ = false;
  bool ended_ = false;
  std::thread thread_;
};

/// Closes a socket: here, or where `closer` is not null by that.
void close_socket(int socket, SocketCloser* closer);

}  // namespace corvane
