#include "tests/support/daemon_process.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <fcntl.h>
#include <poll.h>
#include <sstream>
#include <sys/prctl.h>
#include <sys/wait.h>

#include "client/client.h"
#include "client/methods.h"
#include "plist/reader.h"
#include "wire/limits.h"
#include "wire/socket_address.h"

namespace corvane::testing {

DeviceRoot::DeviceRoot(const std::string& below) : base_(make_temporary_folder()), root_(base_ + below) {
  make_image_folders(root_);
  const std::string properties = "<dict><key>ProductVersion</key><string>9.1</string></dict>";
  write_file(profile(), "<plist><dict><key>Properties</key>" + properties + "</dict></plist>");
}

Environment DeviceRoot::environment() const {
  return {{"CORVANE_ROOT", root_},
          {"CORVANE_PLATFORM", "simulated"},
          {"CORVANE_PROFILE", profile()},
          {"CORVANE_LOG_STDERR", "1"}};
}

Lines DeviceRoot::listing() const {
  Lines listing;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(base_)) {
    const auto mode = static_cast<unsigned>(entry.symlink_status().permissions());
    listing.push_back(entry.path().string() + " " + std::to_string(mode));
  }
  std::sort(listing.begin(), listing.end());
  return listing;
}

DaemonProcess::DaemonProcess(const Environment& environment, rlim_t descriptors)
    : error_file_(open("/tmp", O_TMPFILE | O_RDWR | O_APPEND | O_CLOEXEC, 0600)), pid_(fork()) {
  if (pid_ < 0 || error_file_ < 0) throw std::runtime_error("the daemon could not be started");
  if (pid_ > 0) return;
  prctl(PR_SET_PDEATHSIG, SIGKILL);  // it dies with the test, however that ends
  dup2(error_file_, STDERR_FILENO);
  const rlimit limit{descriptors, descriptors};
  if (descriptors != 0) setrlimit(RLIMIT_NOFILE, &limit);
  for (const char* name : {"CORVANE_ROOT", "CORVANE_PLATFORM", "CORVANE_PROFILE", "CORVANE_LOG_STDERR"}) {
    unsetenv(name);
  }
  for (const auto& [name, value] : environment) setenv(name.c_str(), value.c_str(), 1);
  execl(CORVANE_BIN_DIR "/corvaned", "corvaned", nullptr);
  _exit(127);
}

DaemonProcess::DaemonProcess(const DeviceRoot& root, rlim_t descriptors)
    : DaemonProcess(root.environment(), descriptors) {
  client::Connection connection(wire::public_service, root.at(""));
  const auto outcome = [&] { return client::copy_regulatory_images(connection).outcome; };
  EXPECT_TRUE(eventually([&] { return outcome() == client::Outcome::answered; })) << standard_error();
}

DaemonProcess::~DaemonProcess() {
  if (pid_ > 0 && end(SIGTERM) != 0) ADD_FAILURE() << standard_error();
  close(error_file_);
}

int DaemonProcess::end(int signal) {
  if (signal != 0) kill(pid_, signal);
  int status = 0;
  if (!eventually([&] { return waitpid(pid_, &status, WNOHANG) == pid_; })) {
    ADD_FAILURE() << "the daemon did not end\n" << standard_error();
    kill(pid_, SIGKILL);
    waitpid(pid_, &status, 0);
  }
  pid_ = -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

Lines DaemonProcess::log() const {
  std::istringstream text(standard_error());
  Lines lines;
  for (std::string line; std::getline(text, line);) {
    const size_t head = line.find("> CV: ");
    lines.push_back(head == std::string::npos ? line : line.substr(head + 6));
  }
  return lines;
}

bool eventually(const std::function<bool()>& question) {
  for (int attempt = 0; attempt < 2000; ++attempt, usleep(10'000)) {
    if (question()) return true;
  }
  return false;
}

RawClient::RawClient(const std::string& socket) : socket_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  const timeval timeout{20, 0};
  setsockopt(socket_, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
  setsockopt(socket_, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout);
  const wire::SocketAddress address(socket);
  if (connect(socket_, address.get(), address.size()) != 0) throw std::runtime_error("no connection: " + socket);
}

bool RawClient::send(std::string_view bytes) {
  return ::send(socket_, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
}

plist::Ref<plist::Dictionary> RawClient::response() {
  const auto receive = [&](char* bytes, size_t count) {
    return recv(socket_, bytes, count, MSG_WAITALL) == static_cast<ssize_t>(count);
  };
  std::array<char, wire::header_size> bytes;
  const auto header = receive(bytes.data(), bytes.size()) ? wire::decode_header(bytes) : std::nullopt;
  if (!header || header->kind != wire::raw_data_kind || header->length > wire::response_limit) return nullptr;
  auto body = plist::MutableData::create(header->length);
  if (!receive(body->mutable_bytes(), header->length)) return nullptr;
  const auto decoded = plist::decode(plist::MutableData::freeze(body), plist::Containers::immutable);
  return plist::cast<plist::Dictionary>(decoded.value.get());
}

std::string RawClient::ask(std::string_view selector) {
  return send(request(selector)) ? answer() : "(the connection is closed)";
}

// A peer that closes with requests unread resets the connection.
bool RawClient::ends() {
  char byte;
  const ssize_t count = recv(socket_, &byte, 1, 0);
  return count == 0 || (count < 0 && errno == ECONNRESET);
}

bool RawClient::has_news(int milliseconds) const {
  pollfd waiting{socket_, POLLIN, 0};
  return poll(&waiting, 1, milliseconds) > 0;
}

std::string frame(std::string_view body, uint8_t kind) {
  const auto header = wire::encode_header({kind, static_cast<uint32_t>(body.size())});
  return std::string(header.begin(), header.end()).append(body);
}

std::string frame(const plist::Value& value) {
  plist::ByteChain chain;
  plist::encode_binary(value, chain);
  std::string body;
  for (const std::string_view piece : chain.pieces()) body += piece;
  return frame(body);
}

std::string refusal(std::string_view selector) {
  return R"({"Error": "Unexpeceted parameter", "ErrorObject": {"Code": 1, "Domain": "com.norvane.corvaned.error", )"
         R"("UserInfo": {"ErrorDescription": "Unexpeceted parameter"}}, "Request": ")" +
         std::string(selector) + "\"}";
}

}  // namespace corvane::testing
