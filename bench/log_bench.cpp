// A line of the log beside one of spdlog's that is flushed, and beside the work of syslog(3).
// Usage: log_bench [ROUNDS [LINES]]

#include <spdlog/logger.h>
#include <spdlog/sinks/rotating_file_sink.h>

#include <csignal>
#include <ctime>
#include <filesystem>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include "bench/measure.h"
#include "daemon/log/cv_log.h"
#include "platform/linux/linux_device.h"
#include "platform/system/system_platform.h"
#include "tests/support/test_platform.h"

namespace corvane::bench {

namespace {

/// What syslog(3) does for a line, to a datagram socket that is read; /dev/log itself would fill the journal of
/// the machine that this runs on.
class SystemLog {
 public:
  SystemLog() {
    int ends[2];
    must(socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, ends) == 0, "socketpair");
    reader_ = fork();
    must(reader_ >= 0, "fork");
    if (reader_ == 0) {
      close(ends[0]);
      for (char line[8192]; recv(ends[1], line, sizeof line, 0) > 0;) {
      }
      _exit(0);
    }
    close(ends[1]);
    socket_ = ends[0];
  }
  ~SystemLog() {
    close(socket_);
    kill(reader_, SIGTERM);
    waitpid(reader_, nullptr, 0);
  }

  void write(const char* key) const {
    const time_t now = time(nullptr);
    tm local{};
    localtime_r(&now, &local);
    char line[512];
    size_t size = static_cast<size_t>(std::snprintf(line, sizeof line, "<%d>", 29));
    size += std::strftime(line + size, sizeof line - size, "%h %e %T ", &local);
    size += static_cast<size_t>(std::snprintf(line + size, sizeof line - size,
                                              "corvaned[%d]: CV: %s: dirtied by changing %s",
                                              static_cast<int>(getpid()), "data_ark_set", key));
    must(send(socket_, line, size, MSG_NOSIGNAL) == static_cast<ssize_t>(size), "send");
  }

 private:
  int socket_ = -1;
  pid_t reader_ = -1;
};

int run(size_t rounds, size_t lines) {
  const std::string base = testing::make_temporary_folder();
  const std::string root = base + "/root";
  testing::make_image_folders(root);
  Environment environment;
  environment.root = root;
  SystemPlatform platform(environment, std::make_unique<LinuxDevice>(root));
  install_platform(&platform);

  const auto sink = std::make_shared<spdlog::sinks::rotating_file_sink_mt>(base + "/spdlog.log", 65536, 1);
  spdlog::logger logger("Corvane", sink);
  logger.set_level(spdlog::level::trace);
  logger.flush_on(spdlog::level::trace);
  const SystemLog system_log;

  const plist::Ref<plist::String> key = plist::String::create("com.norvane.mobile.backup-Version");
  const auto each = [&](const char* what, auto line) {
    figure("log line", what, "us", time_of(lines, [&] {
                                     for (size_t i = 0; i < lines; ++i) line();
                                   }) / 1e3);
  };
  for (size_t round = 0; round < rounds; ++round) {
    each("cv_log", [&] { cv_log("data_ark_set", 0, "dirtied by changing %@", key); });
    each("spdlog, flushed", [&] { logger.debug("{}: dirtied by changing {}", "data_ark_set", key->c_string()); });
    each("syslog(3)'s work", [&] { system_log.write(key->c_string()); });
  }
  // A log that does not have the lines was not measured.
  const std::string log = testing::read_file(root + "/var/mobile/Library/Logs/corvaned/corvaned.log");
  must(log.find("dirtied by changing com.norvane.mobile.backup-Version\n") != std::string::npos,
       "the log's last lines");
  std::filesystem::remove_all(base);
  return 0;
}

}  // namespace

}  // namespace corvane::bench

int main(int argc, char** argv) {
  using namespace corvane::bench;
  return run(count_argument(argc, argv, 1, 7), count_argument(argc, argv, 2, 10000));
}
