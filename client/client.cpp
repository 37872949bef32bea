#include "client/client.h"

#include <climits>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <poll.h>
#include <span>
#include <sys/socket.h>
#include <sys/uio.h>
#include <utility>
#include <vector>

#include "plist/reader.h"
#include "plist/writer.h"
#include "wire/frame.h"
#include "wire/frame_reader.h"
#include "wire/limits.h"
#include "wire/socket_address.h"

namespace corvane::client {

using plist::Ref;

namespace {

using std::chrono::steady_clock;

// Data of so many bytes are sent from where they lie.
constexpr size_t share_from = 4096;

Answer failure(Outcome outcome, std::string detail) { return {outcome, std::move(detail), {}}; }

std::chrono::milliseconds time_left(steady_clock::time_point deadline) {
  return std::chrono::ceil<std::chrono::milliseconds>(deadline - steady_clock::now());
}

/// One request and its answer on a connected socket, until the deadline.
class Call {
 public:
  Call(int socket, uint32_t response_limit, steady_clock::time_point deadline)
      : socket_(socket), response_limit_(response_limit), deadline_(deadline) {}

  /// The failure, or nothing when the request was sent.
  std::optional<Answer> send(const plist::ByteChain& body);
  /// The answer to a request for `selector`; null takes an answer to any.
  Answer receive(const plist::String* selector);
  /// Whether any byte of an answer has come.
  bool received_any() const { return received_any_; }

 private:
  std::optional<Answer> wait_for(short events);
  std::optional<Answer> read_frame(wire::Frame& frame);

  const int socket_;
  const uint32_t response_limit_;
  const steady_clock::time_point deadline_;
  bool received_any_ = false;
};

std::optional<Answer> Call::wait_for(short events) {
  for (;;) {
    const auto left = time_left(deadline_).count();
    if (left <= 0) return failure(Outcome::timed_out, "no answer in time");
    pollfd waiting{socket_, events, 0};
    const int ready = poll(&waiting, 1, static_cast<int>(std::min<long long>(left, INT_MAX)));
    if (ready > 0) return std::nullopt;
    if (ready < 0 && errno != EINTR) return failure(Outcome::closed, std::strerror(errno));
  }
}

std::vector<iovec> vectors_of(std::array<char, wire::header_size>& header, const plist::ByteChain& body) {
  std::vector<iovec> vectors{{header.data(), header.size()}};
  for (const std::string_view piece : body.pieces()) {
    vectors.push_back({const_cast<char*>(piece.data()), piece.size()});
  }
  return vectors;
}

// Removes the first `count` bytes.
void drop_front(std::span<iovec>& vectors, size_t count) {
  while (!vectors.empty()) {
    iovec& front = vectors.front();
    const size_t taken = std::min(count, front.iov_len);
    front.iov_base = static_cast<char*>(front.iov_base) + taken;
    front.iov_len -= taken;
    count -= taken;
    if (front.iov_len != 0) return;
    vectors = vectors.subspan(1);
  }
}

std::optional<Answer> Call::send(const plist::ByteChain& body) {
  auto header = wire::encode_header({wire::raw_data_kind, static_cast<uint32_t>(body.size())});
  std::vector<iovec> vectors = vectors_of(header, body);
  for (std::span<iovec> unsent = vectors; !unsent.empty();) {
    msghdr message{};
    message.msg_iov = unsent.data();
    message.msg_iovlen = std::min<size_t>(unsent.size(), IOV_MAX);
    const ssize_t sent = sendmsg(socket_, &message, MSG_NOSIGNAL);
    if (sent >= 0) {
      drop_front(unsent, static_cast<size_t>(sent));
    } else if (errno != EAGAIN && errno != EINTR) {
      return failure(Outcome::closed, std::strerror(errno));
    } else if (auto failed = wait_for(POLLOUT)) {
      return failed;
    }
  }
  return std::nullopt;
}

std::optional<Answer> Call::read_frame(wire::Frame& frame) {
  wire::FrameReader reader(response_limit_);
  for (;;) {
    switch (reader.next(frame)) {
      case wire::FrameReader::Status::frame:
        return std::nullopt;
      case wire::FrameReader::Status::bad_header:
        return failure(Outcome::bad_answer, "the answer is no frame");
      case wire::FrameReader::Status::too_long:
        return failure(Outcome::too_long, "the answer is too long");
      case wire::FrameReader::Status::incomplete:
        break;
    }
    // Before each read, so that the deadline also ends an answer that comes byte by byte.
    if (auto failed = wait_for(POLLIN)) return failed;
    const std::span<char> buffer = reader.prepare();
    const ssize_t count = recv(socket_, buffer.data(), buffer.size(), 0);
    if (count < 0 && (errno == EAGAIN || errno == EINTR)) continue;
    if (count < 0) return failure(Outcome::closed, std::strerror(errno));
    if (count == 0) return failure(Outcome::closed, "the daemon closed the connection");
    received_any_ = true;
    reader.commit(static_cast<size_t>(count));
  }
}

// The daemon had no selector to repeat where it could not read the request.
bool is_answer_to(const plist::String* asked, const plist::String* answered, bool failed) {
  return asked == nullptr || plist::equal(asked, answered) || (failed && answered->view().empty());
}

Answer Call::receive(const plist::String* selector) {
  wire::Frame frame;
  if (auto failed = read_frame(frame)) return *failed;
  const plist::Decoded decoded = plist::decode(frame.body, plist::Containers::immutable);
  const auto* dictionary = plist::cast<plist::Dictionary>(decoded.value.get());
  if (decoded.error) return failure(Outcome::bad_answer, std::string(decoded.error->view()));
  Answer answer;
  if (frame.kind != wire::raw_data_kind || dictionary == nullptr ||
      !wire::read_response(*dictionary, answer.response)) {
    return failure(Outcome::bad_answer, "the answer is no response");
  }
  if (!is_answer_to(selector, wire::request_selector(*dictionary), answer.response.failed)) {
    return failure(Outcome::bad_answer, "the answer is to another request");
  }
  return answer;
}

}  // namespace

Outcome refusal(int connect_error) {
  if (connect_error == EACCES || connect_error == EPERM) return Outcome::not_permitted;
  return connect_error == EAGAIN ? Outcome::timed_out : Outcome::refused;
}

std::string refusal_text(const std::string& path, int connect_error) {
  if (connect_error == EAGAIN) return "the daemon accepts no connection in time";
  return path + ": " + std::strerror(connect_error);
}

Connection::Connection(std::string_view service_name, const std::string& root, std::chrono::milliseconds timeout,
                       uint32_t response_limit)
    : path_(wire::socket_path(root, service_name)),
      request_limit_(service_name == wire::admin_service ? wire::admin_request_limit : wire::public_request_limit),
      response_limit_(response_limit),
      timeout_(timeout) {}

std::string Connection::root_from_environment() {
  const char* root = secure_getenv("CORVANE_ROOT");
  return root == nullptr ? "" : root;
}

Answer Connection::ask(const plist::Dictionary& request) {
  try {
    return send_and_receive(request);
  } catch (...) {
    // Memory is out, or the thread is cancelled. The answer may still come, and is not that to the next request.
    socket_ = Socket();
    throw;
  }
}

Answer Connection::send_and_receive(const plist::Dictionary& request) {
  plist::ByteChain body;
  if (const Ref<plist::String> fault = plist::encode_binary(request, body, share_from, request_limit_)) {
    return failure(Outcome::bad_request, "the request cannot be sent: " + std::string(fault->view()));
  }
  const auto deadline = steady_clock::now() + timeout_;
  for (;;) {
    const bool fresh = !socket_;
    if (fresh) socket_ = connect_to(path_, time_left(deadline));
    if (!socket_) {
      const int error = errno;
      return failure(refusal(error), refusal_text(path_, error));
    }

    Call call(socket_.descriptor(), response_limit_, deadline);
    std::optional<Answer> failed = call.send(body);
    const Answer answer = failed ? *failed : call.receive(wire::request_selector(request));
    if (answer.outcome == Outcome::answered) return answer;
    socket_ = Socket();
    const bool was_stale = !fresh && answer.outcome == Outcome::closed && !call.received_any();
    if (!was_stale) return answer;
  }
}

}  // namespace corvane::client
