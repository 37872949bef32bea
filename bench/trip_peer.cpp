// The servers that the daemon's round trips are compared with, each on a socket of its own:
//
//   trip_peer echo SOCKET SIZE FILE   answers every SIZE bytes with the contents of FILE, which it holds
//   trip_peer file SOCKET SIZE FILE   opens and reads FILE for every SIZE bytes, and sends that
//   trip_peer fair SOCKET SIZE FILE   the same with every call on FILE that the daemon makes for a request
//   trip_peer bus SOCKET SIZE         sd-bus, peer to peer: answers a call with SIZE bytes
//   trip_peer on-bus SOCKET SIZE      the same as a service of the dbus-daemon at SOCKET

#include <charconv>
#include <cstring>
#include <deque>
#include <fcntl.h>
#include <functional>
#include <iterator>
#include <memory>
#include <string>
#include <string_view>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>
#include <unistd.h>

#include "bench/measure.h"
#include "wire/socket_address.h"

namespace corvane::bench {

namespace {

int listen_at(const std::string& path) {
  const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  const wire::SocketAddress address(path);
  must(bind(listener, address.get(), address.size()) == 0, "bind");
  must(listen(listener, 1024) == 0, "listen");
  return listener;
}

// ---- bytes --------------------------------------------------------------------------------------------

struct Bytes {
  std::shared_ptr<char[]> bytes;
  size_t size = 0;
};

Bytes read_whole(const char* path) {
  const int descriptor = open(path, O_RDONLY | O_CLOEXEC);
  struct stat status;
  must(descriptor >= 0 && fstat(descriptor, &status) == 0, "open");
  Bytes all{std::shared_ptr<char[]>(new char[static_cast<size_t>(status.st_size)]),
            static_cast<size_t>(status.st_size)};
  for (size_t have = 0; have < all.size;) {
    const ssize_t count = read(descriptor, all.bytes.get() + have, all.size - have);
    must(count > 0, "read");
    have += static_cast<size_t>(count);
  }
  close(descriptor);
  return all;
}

/// The daemon's calls on its file in their order: it checks where the descriptor leads, and looks once for the
/// type and once for the size.
Bytes read_checked(const char* path) {
  const int descriptor = open(path, O_RDONLY | O_NOCTTY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC);
  must(descriptor >= 0, "open");
  char link[32] = "/proc/self/fd/";
  *std::to_chars(link + std::strlen(link), std::end(link) - 1, descriptor).ptr = '\0';
  char actual_path[1024];
  const ssize_t length = readlink(link, actual_path, sizeof actual_path);
  must(length > 0 && std::string_view(actual_path, static_cast<size_t>(length)) == path, "readlink");
  struct stat status;
  must(fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode), "fstat");
  must(fstat(descriptor, &status) == 0, "fstat");
  const auto size = static_cast<size_t>(status.st_size);
  Bytes all{std::shared_ptr<char[]>(new char[size]), size};
  must(read(descriptor, all.bytes.get(), size) == status.st_size, "read");
  close(descriptor);
  return all;
}

/// A client of the epoll loop: bytes in, answers out, all that are due in one call.
struct Peer {
  int socket;
  size_t received = 0;
  std::deque<Bytes> due;
  size_t sent_of_front = 0;
  bool waits_to_write = false;
};

/// False where the peer has gone.
bool send_due(Peer& peer) {
  while (!peer.due.empty()) {
    iovec pieces[64];
    size_t count = 0;
    for (const Bytes& answer : peer.due) {
      if (count == std::size(pieces)) break;
      const size_t skip = count == 0 ? peer.sent_of_front : 0;
      pieces[count++] = {answer.bytes.get() + skip, answer.size - skip};
    }
    msghdr message{};
    message.msg_iov = pieces;
    message.msg_iovlen = count;
    const ssize_t sent = sendmsg(peer.socket, &message, MSG_NOSIGNAL);
    if (sent < 0) return errno == EAGAIN;
    peer.sent_of_front += static_cast<size_t>(sent);
    while (!peer.due.empty() && peer.sent_of_front >= peer.due.front().size) {
      peer.sent_of_front -= peer.due.front().size;
      peer.due.pop_front();
    }
  }
  return true;
}

bool receive(Peer& peer, size_t request_size, const std::function<Bytes()>& answer) {
  char bytes[4096];
  const ssize_t count = recv(peer.socket, bytes, sizeof bytes, 0);
  if (count <= 0) return count < 0 && errno == EAGAIN;
  for (peer.received += static_cast<size_t>(count); peer.received >= request_size; peer.received -= request_size) {
    peer.due.push_back(answer());
  }
  return true;
}

void serve_bytes(const std::string& path, size_t request_size, const std::function<Bytes()>& answer) {
  const int listener = listen_at(path);
  const int poller = epoll_create1(EPOLL_CLOEXEC);
  epoll_event event{EPOLLIN, {nullptr}};
  epoll_ctl(poller, EPOLL_CTL_ADD, listener, &event);
  for (;;) {
    epoll_event events[64];
    const int count = epoll_wait(poller, events, std::size(events), -1);
    for (int i = 0; i < count; ++i) {
      auto* peer = static_cast<Peer*>(events[i].data.ptr);
      if (peer == nullptr) {
        const int socket = accept4(listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (socket < 0) continue;
        event = {EPOLLIN, {new Peer{socket, 0, {}, 0, false}}};
        epoll_ctl(poller, EPOLL_CTL_ADD, socket, &event);
        continue;
      }
      const bool stays =
          (!(events[i].events & EPOLLIN) || receive(*peer, request_size, answer)) && send_due(*peer);
      if (!stays) {
        close(peer->socket);
        delete peer;
      } else if (peer->waits_to_write == peer->due.empty()) {
        peer->waits_to_write = !peer->due.empty();
        event = {peer->waits_to_write ? EPOLLIN | EPOLLOUT : EPOLLIN, {peer}};
        epoll_ctl(poller, EPOLL_CTL_MOD, peer->socket, &event);
      }
    }
  }
}

// ---- sd-bus -------------------------------------------------------------------------------------------

int answer_call(sd_bus_message* call, void* answer_text, sd_bus_error*) {
  const auto& answer = *static_cast<std::string*>(answer_text);
  sd_bus_message* reply = nullptr;
  must(sd_bus_message_new_method_return(call, &reply) >= 0, "new reply");
  must(sd_bus_message_append_array(reply, 'y', answer.data(), answer.size()) >= 0, "append");
  const int sent = sd_bus_send(nullptr, reply, nullptr);
  sd_bus_message_unref(reply);
  return sent < 0 ? sent : 1;
}

struct BusService {
  sd_event* event = nullptr;
  std::string answer;

  void add(sd_bus* bus) {
    must(sd_bus_add_object(bus, nullptr, "/", answer_call, &answer) >= 0, "add object");
    must(sd_bus_attach_event(bus, event, SD_EVENT_PRIORITY_NORMAL) >= 0, "attach");
  }
};

int accept_peer(sd_event_source*, int listener, uint32_t, void* service) {
  const int socket = accept4(listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
  if (socket < 0) return 0;
  sd_bus* bus = nullptr;
  sd_id128_t id;
  sd_id128_randomize(&id);
  sd_bus_new(&bus);
  sd_bus_set_fd(bus, socket, socket);
  sd_bus_set_server(bus, 1, id);
  // A client that is gone already only looked whether somebody listens.
  if (sd_bus_start(bus) >= 0) static_cast<BusService*>(service)->add(bus);
  return 0;
}

void serve_calls(const std::string& path, size_t size, bool through_daemon) {
  BusService service;
  service.answer.assign(size, 'a');
  must(sd_event_new(&service.event) >= 0, "sd_event_new");
  if (through_daemon) {
    sd_bus* bus = nullptr;
    sd_bus_new(&bus);
    sd_bus_set_address(bus, ("unix:path=" + path).c_str());
    sd_bus_set_bus_client(bus, 1);
    must(sd_bus_start(bus) >= 0, "start");
    service.add(bus);
    const std::string name = "com.norvane.bench" + std::to_string(size);
    must(sd_bus_request_name(bus, name.c_str(), 0) >= 0, "request name");
  } else {
    sd_event_add_io(service.event, nullptr, listen_at(path), EPOLLIN, accept_peer, &service);
  }
  sd_event_loop(service.event);
}

int run(const std::string& kind, const std::string& path, size_t size, const char* file) {
  if (kind == "echo") {
    const Bytes answer = read_whole(file);
    serve_bytes(path, size, [&] { return answer; });
  } else if (kind == "file") {
    serve_bytes(path, size, [&] { return read_whole(file); });
  } else if (kind == "fair") {
    serve_bytes(path, size, [&] { return read_checked(file); });
  } else {
    serve_calls(path, size, kind == "on-bus");
  }
  return 1;
}

}  // namespace

}  // namespace corvane::bench

int main(int argc, char** argv) {
  if (argc < 4) return 2;
  return corvane::bench::run(argv[1], argv[2], corvane::bench::count_argument(argc, argv, 3, 0), argv[4]);
}
