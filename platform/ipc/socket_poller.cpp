#include "platform/ipc/socket_poller.h"

#include <cerrno>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace corvane {

namespace {

int create_epoll() {
  const int epoll = epoll_create1(EPOLL_CLOEXEC);
  if (epoll < 0) throw std::system_error(errno, std::generic_category());
  return epoll;
}

}  // namespace

SocketPoller::SocketPoller(asio::io_context& context) : epoll_(context, create_epoll()) {}

bool SocketPoller::add(int socket, void* data) {
  epoll_event event{};
  event.events = EPOLLIN;
  event.data.ptr = data;
  return epoll_ctl(epoll_.native_handle(), EPOLL_CTL_ADD, socket, &event) == 0;
}

// Of a socket that nothing is expected of, not even its end must be told again and again.
void SocketPoller::set_interest(int socket, void* data, Readiness interest) {
  epoll_event event{};
  event.events = (interest.readable ? EPOLLIN : 0u) | (interest.writable ? EPOLLOUT : 0u);
  if (event.events == 0) event.events = EPOLLET;
  event.data.ptr = data;
  epoll_ctl(epoll_.native_handle(), EPOLL_CTL_MOD, socket, &event);
}

void SocketPoller::remove(int socket) { epoll_ctl(epoll_.native_handle(), EPOLL_CTL_DEL, socket, nullptr); }

std::span<const SocketPoller::Event> SocketPoller::poll() {
  const int count = epoll_wait(epoll_.native_handle(), raw_.data(), static_cast<int>(raw_.size()), 0);
  for (int i = 0; i < count; ++i) {
    const uint32_t told = raw_[static_cast<size_t>(i)].events;
    const bool ended = (told & (EPOLLERR | EPOLLHUP)) != 0;
    events_[static_cast<size_t>(i)] = {raw_[static_cast<size_t>(i)].data.ptr,
                                       {ended || (told & EPOLLIN) != 0, ended || (told & EPOLLOUT) != 0}};
  }
  return {events_.data(), count < 0 ? 0 : static_cast<size_t>(count)};
}

void SocketPoller::async_wait(std::function<void()> ready) {
  epoll_.async_wait(asio::posix::stream_descriptor::wait_read,
                    [ready = std::move(ready)](const std::error_code& error) {
                      if (!error) ready();
                    });
}

}  // namespace corvane
