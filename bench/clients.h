#pragma once

#include <poll.h>
#include <span>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <systemd/sd-bus.h>
#include <unistd.h>
#include <vector>

#include "bench/measure.h"
#include "plist/reader.h"
#include "tests/support/daemon_process.h"
#include "wire/socket_address.h"

namespace corvane::bench {

/// Waits until the operation succeeds.
template <class Operation>
void until(Operation operation, const char* what) {
  const auto start = steady_clock::now();
  while (!operation()) {
    must(steady_clock::now() - start < std::chrono::seconds(20), what);
    usleep(50);
  }
}

/// A blocking socket, connected as soon as somebody listens.
inline int connected_socket(const std::string& path) {
  int connected = -1;
  until(
      [&] {
        connected = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const wire::SocketAddress address(path);
        if (connect(connected, address.get(), address.size()) == 0) return true;
        close(connected);
        return false;
      },
      "connect");
  return connected;
}

/// A client that costs as little as possible: it sends the same bytes again and again, and only counts the bytes
/// of the answers. Blocking; one thread.
class Client {
 public:
  virtual ~Client() = default;
  virtual void send(size_t count) = 0;
  virtual void receive(size_t count) = 0;
  virtual void ask() {
    send(1);
    receive(1);
  }
};

/// Raw bytes over a local stream socket.
class ByteClient final : public Client {
 public:
  ByteClient(const std::string& path, std::string_view request, size_t answer_size)
      : socket_(connected_socket(path)),
        request_size_(request.size()),
        answer_size_(answer_size),
        buffer_(std::min<size_t>(answer_size * 64, 1 << 20)) {
    for (int i = 0; i < 64; ++i) requests_ += request;
  }
  ~ByteClient() override { close(socket_); }

  /// Precondition: at most 64.
  void send(size_t count) override {
    std::string_view bytes = std::string_view(requests_).substr(0, count * request_size_);
    while (!bytes.empty()) {
      const ssize_t sent = ::send(socket_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
      must(sent > 0, "send");
      bytes.remove_prefix(static_cast<size_t>(sent));
    }
  }
  void receive(size_t count) override {
    for (size_t left = count * answer_size_; left > 0;) {
      // As the client library does. A reader that blocks in recv(2) is woken once in vain for each request that is
      // taken off the socket.
      pollfd readable{socket_, POLLIN, 0};
      must(poll(&readable, 1, -1) == 1, "poll");
      const ssize_t received = recv(socket_, buffer_.data(), std::min(left, buffer_.size()), 0);
      must(received > 0, "recv");
      left -= static_cast<size_t>(received);
    }
  }

 private:
  const int socket_;
  const size_t request_size_;
  const size_t answer_size_;
  std::string requests_;
  std::vector<char> buffer_;
};

/// Calls with sd-bus, of a peer or, with the name of a destination, through the bus at the socket.
class BusClient final : public Client {
 public:
  BusClient(const std::string& path, const char* destination, size_t answer_size)
      : destination_(destination), answer_size_(answer_size) {
    sd_bus_new(&bus_);
    sd_bus_set_address(bus_, ("unix:path=" + path).c_str());
    if (destination != nullptr) sd_bus_set_bus_client(bus_, 1);
    must(sd_bus_start(bus_) >= 0, "sd_bus_start");
  }
  ~BusClient() override { sd_bus_flush_close_unref(bus_); }

  void ask() override { must(serves(), "sd_bus_call"); }
  /// Asks; false where nobody answered.
  bool serves() {
    sd_bus_message* call = make_call();
    sd_bus_message* reply = nullptr;
    const bool answered = sd_bus_call(bus_, call, 0, nullptr, &reply) >= 0;
    if (answered) check(reply);
    sd_bus_message_unref(reply);
    sd_bus_message_unref(call);
    return answered;
  }
  void send(size_t count) override {
    for (; count > 0; --count) {
      sd_bus_message* call = make_call();
      must(sd_bus_call_async(bus_, nullptr, call, answered, this, 0) >= 0, "sd_bus_call_async");
      sd_bus_message_unref(call);
    }
  }
  void receive(size_t count) override {
    for (wanted_ += count; answered_ < wanted_;) {
      if (sd_bus_process(bus_, nullptr) == 0) sd_bus_wait(bus_, UINT64_MAX);
    }
  }

 private:
  sd_bus_message* make_call() {
    sd_bus_message* call = nullptr;
    must(sd_bus_message_new_method_call(bus_, &call, destination_, "/", "com.norvane.bench", "Copy") >= 0,
         "new call");
    sd_bus_message_append(call, "s", std::string(wire::copy_regulatory_images).c_str());
    return call;
  }
  void check(sd_bus_message* reply) const {
    const void* bytes = nullptr;
    size_t size = 0;
    must(sd_bus_message_read_array(reply, 'y', &bytes, &size) >= 0 && size == answer_size_, "the peer's answer");
  }
  static int answered(sd_bus_message* reply, void* self, sd_bus_error*) {
    auto* client = static_cast<BusClient*>(self);
    client->check(reply);
    ++client->answered_;
    return 0;
  }

  sd_bus* bus_ = nullptr;
  const char* const destination_;
  const size_t answer_size_;
  size_t wanted_ = 0;
  size_t answered_ = 0;
};

/// The configuration of a dbus-daemon at the socket, with the limits of a session's.
inline std::string bus_configuration(const std::string& socket) {
  std::string limits;
  for (const char* name : {"max_incoming_bytes", "max_outgoing_bytes", "max_message_size"}) {
    limits += "<limit name='" + std::string(name) + "'>1000000000</limit>";
  }
  return "<!DOCTYPE busconfig PUBLIC '-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN'"
         " 'http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd'><busconfig><listen>unix:path=" +
         socket +
         "</listen><auth>EXTERNAL</auth><policy context='default'><allow send_destination='*'/>"
         "<allow receive_sender='*'/><allow own='*'/></policy>" +
         limits + "</busconfig>";
}

/// The whole frame that the daemon at the socket answers a request for the images with.
inline std::string images_frame(const std::string& path) {
  const int socket = connected_socket(path);
  const std::string request = testing::request(wire::copy_regulatory_images);
  must(::send(socket, request.data(), request.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(request.size()),
       "send");
  std::string frame(wire::header_size, '\0');
  const auto receive = [&](size_t offset) {
    const size_t size = frame.size() - offset;
    must(recv(socket, frame.data() + offset, size, MSG_WAITALL) == static_cast<ssize_t>(size), "recv");
  };
  receive(0);
  const auto header = wire::decode_header(std::span<const char, wire::header_size>(frame));
  must(header.has_value(), "the answer's header");
  frame.resize(wire::header_size + header->length);
  receive(wire::header_size);
  close(socket);
  return frame;
}

/// How many bytes of images such a frame holds; nothing where it has none.
inline size_t images_size(std::string_view frame) {
  const auto decoded =
      plist::decode(plist::Data::create(frame.substr(wire::header_size)), plist::Containers::immutable);
  const auto* response = plist::cast<plist::Dictionary>(decoded.value.get());
  must(response != nullptr, "the answer");
  const auto* reply = plist::cast<plist::Dictionary>(response->get(wire::reply_key));
  if (reply == nullptr) return 0;
  const auto* images = plist::cast<plist::Data>(reply->get("RegulatoryImages"));
  must(images != nullptr, "the answer's images");
  return images->bytes().size();
}

}  // namespace corvane::bench
