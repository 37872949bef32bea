// What a client is told: a server sends the bytes to the real client library, as the answer to a request, to one
// over the C interface, and as notifications to a subscriber. What the library understands is printed as
// corvanectl prints it, and walked over the C interface.

#include <algorithm>
#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

#include "client/client.h"
#include "client/corvane.h"
#include "client/methods.h"
#include "client/subscription.h"
#include "fuzz/ensure.h"
#include "plist/printable.h"
#include "tests/support/test_platform.h"
#include "tools/json.h"
#include "tools/print.h"
#include "wire/messages.h"
#include "wire/socket_address.h"

namespace corvane::fuzz {

namespace {

using client::Outcome;

/// Serves one service's socket: sends each client the same bytes in chunks, and closes the connection.
class Server {
 public:
  Server(const std::string& path, bool is_asked) : is_asked_(is_asked) {
    const wire::SocketAddress address(path);
    listening_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ENSURE(bind(listening_, address.get(), address.size()) == 0 && listen(listening_, 8) == 0);
    std::thread([this] {
      for (;;) serve(::accept(listening_, nullptr, nullptr));
    }).detach();
  }

  void set_answer(std::string_view bytes, size_t chunk) {
    const std::lock_guard lock(mutex_);
    answer_ = bytes;
    chunk_ = chunk;
  }

 private:
  void serve(int socket) {
    char request[4096];
    if (is_asked_) ENSURE(::read(socket, request, sizeof request) > 0);
    const std::lock_guard lock(mutex_);
    for (std::string_view rest = answer_; !rest.empty();) {
      const ssize_t sent = ::send(socket, rest.data(), std::min(rest.size(), chunk_), MSG_NOSIGNAL);
      if (sent <= 0) break;
      rest.remove_prefix(static_cast<size_t>(sent));
    }
    ::close(socket);
  }

  const bool is_asked_;
  int listening_;
  std::mutex mutex_;
  std::string answer_;
  size_t chunk_ = 1;
};

void expect_printable(const plist::Value& value) {
  std::string text = tools::to_text(value);
  std::erase(text, '\n');
  ENSURE(!text.empty() && plist::printable(text) == text);
  const std::string line = tools::to_json_line(value);
  ENSURE(line.find('\n') == line.npos);
  for (const std::string& json : {tools::to_json(value), line}) {
    ENSURE(plist::equal(tools::from_json(json).get(), &value));
  }
}

void ask(const std::string& root) {
  client::Connection connection(wire::public_service, root);
  const client::Answer answer = client::copy_regulatory_images(connection);
  if (answer.outcome == Outcome::answered) {
    if (answer.response.reply) expect_printable(*answer.response.reply);
    ENSURE(answer.response.failed || (answer.response.code == 0 && answer.response.description.empty()));
    return;
  }
  ENSURE(answer.outcome == Outcome::bad_answer || answer.outcome == Outcome::too_long ||
         answer.outcome == Outcome::closed);
  ENSURE(!answer.detail.empty() && answer.detail.find('\n') == answer.detail.npos);
}

// Each child must be where its container says that it is, and nothing beyond.
void walk(const corvane_value* value) {
  const size_t count = corvane_value_count(value);
  for (size_t i = 0; i < count; ++i) walk(corvane_value_at(value, i));
  ENSURE(corvane_value_kind(value) != CORVANE_NONE && corvane_value_at(value, count) == nullptr);
}

void ask_over_c(const std::string& root) {
  corvane_connection* connection = nullptr;
  corvane_value* reply = nullptr;
  corvane_error error;
  ENSURE(corvane_connection_open(CORVANE_PUBLIC, root.c_str(), 5000, &connection, &error) == CORVANE_OK);
  const corvane_status status = corvane_get_images(connection, &reply, &error);
  corvane_connection_close(connection);
  ENSURE((status == CORVANE_OK) == (error.message[0] == '\0') && (status == CORVANE_OK || reply == nullptr));
  if (reply != nullptr) walk(reply);
  corvane_images* images = corvane_images_open(reply);
  while (corvane_images_next(images, nullptr) == CORVANE_OK) continue;
  corvane_images_close(images);
  corvane_value_release(reply);
}

void listen_to(const std::string& root) {
  client::Subscription subscription(root);
  std::string detail;
  ENSURE(subscription.open(detail) == Outcome::answered);
  wire::Notification notification;
  Outcome outcome;
  while ((outcome = subscription.next(notification, detail)) == Outcome::answered) {
    ENSURE(notification.name.empty() == (notification.missed > 0));
  }
  ENSURE((outcome == Outcome::bad_answer || outcome == Outcome::closed) && !detail.empty());
}

void receive(std::string_view bytes, size_t chunk) {
  static const std::string root = testing::TestPlatform::fresh().root();
  static auto& service = *new Server(wire::socket_path(root, wire::public_service), true);
  static auto& notifications = *new Server(wire::socket_path(root, wire::notification_service), false);
  service.set_answer(bytes, chunk);
  ask(root);
  ask_over_c(root);
  notifications.set_answer(bytes, chunk);
  listen_to(root);
}

}  // namespace
}  // namespace corvane::fuzz

// The first byte chooses the size of the chunks in which the rest is sent.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
  if (size == 0) return 0;
  constexpr size_t chunks[] = {SIZE_MAX, 7, 100, 4096};
  corvane::fuzz::receive({reinterpret_cast<const char*>(bytes) + 1, size - 1}, chunks[bytes[0] & 3]);
  return 0;
}
