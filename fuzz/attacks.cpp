#include "fuzz/attacks.h"

#include <deque>
#include <fcntl.h>
#include <thread>

#include "fuzz/passed_sockets.h"
#include "fuzz/random_frames.h"
#include "tests/support/daemon_process.h"
#include "wire/limits.h"

namespace corvane::testing {

namespace {

using namespace std::chrono_literals;

const std::string& small_request() {
  static const std::string bytes = testing::request("r");
  return bytes;
}
const std::string& images_request() {
  static const std::string bytes = testing::request(wire::copy_regulatory_images);
  return bytes;
}

// As many connections as the daemon takes each ask every 30 ms.
void fill_the_table(const Target& target, Count& done) {
  for (Crowd crowd(target.public_socket, target.connections);; std::this_thread::sleep_for(30ms)) {
    crowd.each([&](HostileConnection& connection) {
      done += connection.send(small_request()) > 0;
      return connection.receive();
    });
  }
}

// Thousands of connections that nobody uses, the oldest of them closed for new ones.
void fill_the_backlog(const Target& target, Count& done) {
  for (std::deque<HostileConnection> open;;) {
    done += open.emplace_back(target.public_socket).is_connected();
    if (open.size() > 4000) open.pop_front();
  }
}

// Connects and closes as fast as it goes.
void connect_and_close(const Target& target, Count& done) {
  for (;;) done += HostileConnection(target.public_socket).is_connected();
}

// As many connections as the daemon takes ask again and again, and read nothing.
void ask_and_never_read(const Target& target, Count& done, const std::string& request) {
  for (Crowd crowd(target.public_socket, target.connections);; std::this_thread::sleep_for(5ms)) {
    crowd.each([&](HostileConnection& connection) {
      const ssize_t count = connection.send(request);
      done += count > 0;
      return count == 0 || count == static_cast<ssize_t>(request.size());
    });
  }
}
void ask_for_images_and_never_read(const Target& target, Count& done) {
  ask_and_never_read(target, done, images_request());
}
// An error's answer holds the selector of the request.
void ask_for_long_answers_and_never_read(const Target& target, Count& done) {
  ask_and_never_read(target, done, testing::request(std::string(60'000, 's')));
}

// 14 connections ask for the images again and again, and take 200,000 bytes each 100 ms.
void ask_for_images_and_read_slowly(const Target& target, Count& done) {
  for (Crowd crowd(target.public_socket, 14);; std::this_thread::sleep_for(100ms)) {
    crowd.each([&](HostileConnection& connection) {
      done += connection.send(images_request()) > 0;
      return connection.receive(200'000);
    });
  }
}

// As many connections as the daemon takes send half a request, and then one byte of it at a time.
void write_slowly(const Target& target, Count& done) {
  const std::string request = testing::frame(std::string(wire::public_request_limit, 's'));
  const std::string_view half = std::string_view(request).substr(0, request.size() / 2);
  for (Crowd crowd(target.public_socket, target.connections);; std::this_thread::sleep_for(50ms)) {
    crowd.each([&](HostileConnection& connection) {
      const ssize_t count = connection.send(connection.sent() == 0 ? half : "s");
      done += count > 0;
      return count >= 0;
    });
  }
}

// As many connections as the daemon takes have all but the last byte of the dearest request sent, and then the
// last byte of all at once.
void send_dear_requests(const Target& target, Count& done) {
  std::string body = "<plist><dict ";
  for (size_t i = 0; body.size() + 40 < wire::public_request_limit; ++i) body += "a" + std::to_string(i) + "='' ";
  const std::string request = testing::frame(body + "/></plist>");
  const std::string_view most = std::string_view(request).substr(0, request.size() - 1);
  for (Crowd crowd(target.public_socket, target.connections);;) {
    crowd.each([&](HostileConnection& connection) { return connection.send_all(most); });
    crowd.each([&](HostileConnection& connection) {
      if (connection.sent() % request.size() != most.size()) return true;  // is new
      const bool sent = connection.send(request.substr(most.size())) > 0;
      done += sent;
      return sent;
    });
  }
}

const std::string& many_small_requests() {
  static const std::string requests = [] {
    std::string text;
    for (int i = 0; i < 64; ++i) text += small_request();
    return text;
  }();
  return requests;
}

// Three connections send requests without reading until they are blocked.
void pipeline_without_reading(const Target& target, Count& done) {
  for (Crowd crowd(target.public_socket, 3);; std::this_thread::sleep_for(1ms)) {
    crowd.each([&](HostileConnection& connection) {
      ssize_t count = 0;
      while ((count = connection.send(many_small_requests())) > 0) ++done;
      return count == 0;
    });
  }
}

// One connection sends requests as fast as the daemon answers them.
void pipeline_and_read(const Target& target, Count& done) {
  for (Crowd crowd(target.public_socket, 1);;) {
    crowd.each([&](HostileConnection& connection) {
      const bool sent = connection.send_all(many_small_requests());
      done += sent;
      return sent;
    });
  }
}

// Passes descriptors of /dev/null and of a socket that lingers with each half of a request, and closes its own.
// Where the daemon refuses them, the half goes without.
void pass_descriptors(const Target& target, Count& done) {
  const int null = open("/dev/null", O_RDONLY | O_CLOEXEC);
  LingeringSockets lingering;
  const size_t half = small_request().size() / 2;
  for (Crowd crowd(target.public_socket, 4);; std::this_thread::sleep_for(20ms)) {
    crowd.each([&](HostileConnection& connection) {
      const int socket = lingering.make();
      const std::string part = done % 2 == 0 ? small_request().substr(0, half) : small_request().substr(half);
      const bool passed = send_with_descriptors(connection.socket(), part, std::array{null, null, null, socket});
      ++done;
      if (!passed) LingeringSockets::set_linger(socket, 0);
      std::thread([socket] { close(socket); }).detach();
      return passed ? connection.receive() : connection.send(part) >= 0 && connection.receive();
    });
  }
}

// More subscribers than there are places, none of which reads anything.
void subscribe_and_never_read(const Target& target, Count& done) {
  for (Crowd crowd(target.notification_socket, 200);; std::this_thread::sleep_for(10ms)) {
    crowd.each([&](HostileConnection& connection) {
      ++done;
      return !connection.has_ended();
    });
  }
}

// Sends good and bad frames in batches, on each connection until one with a bad header.
void send_random_frames(const Target& target, Count& done) {
  fuzz::RandomFrames frames(static_cast<uint64_t>(getpid()));
  for (Crowd crowd(target.public_socket, 1);;) {
    crowd.each([&](HostileConnection& connection) {
      std::string batch;
      for (size_t i = 0; i < 64; ++i) batch += frames.next();
      const bool is_last = frames.below(8) == 0;
      if (is_last) batch += frames.next_with_bad_header();
      const bool sent = connection.send_all(batch);
      done += sent;
      return sent && !is_last;
    });
  }
}

}  // namespace

const Attack passed_descriptors{"passed descriptors", {pass_descriptors, pass_descriptors, pass_descriptors}};
const Attack slow_writers{"slow writers", {write_slowly}};
const Attack unread_subscriptions{"unread subscriptions", {subscribe_and_never_read}};
std::vector<Attack> all_attacks() {
  return {
      {"full table and backlog", {fill_the_table, fill_the_backlog, fill_the_backlog}},
      {"connection flood", {connect_and_close, connect_and_close}},
      {"non-readers of images", {ask_for_images_and_never_read}},
      {"non-readers of errors", {ask_for_long_answers_and_never_read}},
      {"slow readers", {ask_for_images_and_read_slowly}},
      slow_writers,
      {"dear requests", {send_dear_requests}},
      {"pipelined flood", {pipeline_without_reading, pipeline_and_read}},
      passed_descriptors,
      unread_subscriptions,
      {"random frames", {send_random_frames, send_random_frames}},
  };
}

}  // namespace corvane::testing
