#include "platform/ipc/passed_descriptors.h"

#include <chrono>
#include <csignal>
#include <exception>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

namespace corvane {

namespace {

// Of newer headers than those that this may be built with.
constexpr int so_passrights = 83;

// Has no effect where it has no handler, so that one which does nothing changes nothing for anybody else.
constexpr int interrupting_signal = SIGURG;

void install_interrupt() {
  struct sigaction action {};
  action.sa_handler = [](int) {};
  sigaction(interrupting_signal, &action, nullptr);
}

}  // namespace

bool refuse_passed_descriptors(int socket) {
  const int off = 0;
  return setsockopt(socket, SOL_SOCKET, so_passrights, &off, sizeof off) == 0;
}

// A peeked message's descriptors are not received, and having no room for them is told: MSG_CTRUNC.
Peeked peek_for_descriptors(int socket, void* buffer, size_t size) {
  iovec bytes{buffer, size};
  msghdr message{};
  message.msg_iov = &bytes;
  message.msg_iovlen = 1;
  const ssize_t count = recvmsg(socket, &message, MSG_PEEK | MSG_DONTWAIT);
  return {count, count >= 0 && (message.msg_flags & MSG_CTRUNC) != 0};
}

SocketCloser::~SocketCloser() {
  if (!thread_.joinable()) return;
  std::unique_lock lock(mutex_);
  stopped_ = true;
  changed_.notify_all();
  while (!ended_) {
    pthread_kill(thread_.native_handle(), interrupting_signal);
    changed_.wait_for(lock, std::chrono::milliseconds(5));
  }
  lock.unlock();
  thread_.join();
}

void SocketCloser::close(int socket) noexcept {
  try {
    const std::lock_guard lock(mutex_);
    sockets_.push_back(socket);
    if (!thread_.joinable()) {
      install_interrupt();
      thread_ = std::thread([this] { run(); });
      pthread_setname_np(thread_.native_handle(), "CVSocketCloser");
    }
    changed_.notify_all();
    if (closing_) pthread_kill(thread_.native_handle(), interrupting_signal);
  } catch (const std::exception&) {
    if (!sockets_.empty() && sockets_.back() == socket) sockets_.pop_back();
    ::close(socket);
  }
}

void close_socket(int socket, SocketCloser* closer) {
  if (closer == nullptr) {
    ::close(socket);
  } else {
    closer->close(socket);
  }
}

void SocketCloser::run() {
  std::unique_lock lock(mutex_);
  while (!stopped_) {
    if (sockets_.empty()) {
      changed_.wait(lock);
      continue;
    }
    const int socket = sockets_.back();
    sockets_.pop_back();
    closing_ = true;
    lock.unlock();
    ::close(socket);
    lock.lock();
    closing_ = false;
  }
  ended_ = true;
  changed_.notify_all();
}

}  // namespace corvane
