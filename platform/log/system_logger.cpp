#include "platform/log/system_logger.h"

#include <spdlog/details/log_msg.h>
#include <spdlog/pattern_formatter.h>
#include <spdlog/sinks/rotating_file_sink.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <exception>
#include <fcntl.h>
#include <optional>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>
#include <utility>

#include "platform/descriptor.h"
#include "plist/unicode.h"
#include "wire/socket_address.h"

// spdlog rotates the disk copy, but expects a folder that works and throws when something fails. DiskCopy
// stands around its sink and opens it only where opening succeeds (spdlog would create folders, wait for a
// reader of a FIFO, and sleep between attempts), looks before each line whether the open file still has a
// name, now and then whether that is the path, and takes back the half line that a full disk leaves. A sink
// that failed is thrown away.

namespace corvane {

namespace {

using std::chrono::steady_clock;

constexpr char level_domain[] = "com.norvane.logger";
constexpr auto retry_interval = std::chrono::seconds(1);
constexpr size_t longest_line_without_disk = 64 * 1024;
constexpr size_t longest_cut_note = 48;

bool is_control(char32_t c) { return c < 0x20 || (c >= 0x7f && c <= 0x9f) || c == 0x2028 || c == 0x2029; }

void append_escaped(std::string& out, char32_t c) {
  char escape[8];
  switch (c) {
    case '\n':
      out += "\\n";
      return;
    case '\t':
      out += "\\t";
      return;
    case '\r':
      out += "\\r";
      return;
    default:
      std::snprintf(escape, sizeof escape, c > 0xff ? "\\u%04x" : "\\x%02x", static_cast<unsigned>(c));
      out += escape;
  }
}

// Appends the first character of `text`, escaped where it must be, and answers its length.
size_t append_character(std::string& out, std::string_view text) {
  char32_t c = 0;
  const size_t length = plist::unicode::decode_utf8(text, c);
  if (length == 0) {
    append_escaped(out, static_cast<unsigned char>(text.front()));
    return 1;
  }
  if (is_control(c)) {
    append_escaped(out, c);
  } else {
    out += text.substr(0, length);
  }
  return length;
}

bool is_plain(std::string_view text) {
  return std::all_of(text.begin(), text.end(), [](char c) { return c >= 0x20 && c < 0x7f; });
}

// As one line of at most `limit` bytes.
void append_line(std::string& line, std::string_view text, size_t limit) {
  if (text.ends_with('\n')) text.remove_suffix(1);
  if (text.size() <= limit && is_plain(text)) {
    line += text;
    return;
  }
  const size_t before = line.size();
  size_t kept = before;
  size_t left_out = text.size();
  while (!text.empty() && line.size() - before <= limit) {
    if (line.size() - before + longest_cut_note <= limit) {
      kept = line.size();
      left_out = text.size();
    }
    text.remove_prefix(append_character(line, text));
  }
  if (line.size() - before <= limit) return;
  line.resize(kept);
  line += " [" + std::to_string(left_out) + " more bytes]";
}

class DiskCopy {
 public:
  DiskCopy(std::string path, int files, size_t bytes)
      : path_(std::move(path)), rotated_files_(static_cast<size_t>(files) - 1), bytes_(bytes) {}
  DiskCopy(const DiskCopy&) = delete;
  DiskCopy& operator=(const DiskCopy&) = delete;

  size_t longest_line() const { return bytes_; }

  // Answers whether the line, which ends in a line feed, is on the disk.
  bool append(std::string_view line) {
    if (!is_in_place() && !open()) return false;
    try {
      sink_->log({spdlog::string_view_t(), spdlog::level::off, spdlog::string_view_t(line.data(), line.size())});
      return true;
    } catch (const std::exception&) {
      give_up();
      return false;
    }
  }

  bool open() {
    sink_.reset();
    if (steady_clock::now() < next_try_) return false;
    try {
      if (has_usable_file()) open_sink();
    } catch (const std::exception&) {
      sink_.reset();
    }
    if (!sink_) next_try_ = steady_clock::now() + retry_interval;
    return sink_ != nullptr;
  }

 private:
  using Sink = spdlog::sinks::rotating_file_sink_st;

  // A file that was removed must not take a single line more; one that was renamed has its lines for a while.
  bool is_in_place() {
    struct stat status;
    if (!sink_ || fstat(descriptor_, &status) != 0 || status.st_nlink == 0) return false;
    whole_lines_ = status.st_size;
    if (steady_clock::now() < next_look_) return true;
    next_look_ = steady_clock::now() + retry_interval;
    struct stat named;
    return stat(path_.c_str(), &named) == 0 && named.st_dev == status.st_dev && named.st_ino == status.st_ino;
  }

  bool has_usable_file() {
    int descriptor = open_file();
    if (descriptor < 0 && errno == ENOENT) {
      mkdir(path_.substr(0, path_.rfind('/')).c_str(), 0755);
      descriptor = open_file();
    }
    if (descriptor < 0) return false;
    struct stat status;
    const bool usable = fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode);
    close(descriptor);
    return usable;
  }

  int open_file() {
    return ::open(path_.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, 0644);
  }

  void open_sink() {
    spdlog::file_event_handlers handlers;
    handlers.after_open = [this](const std::string&, std::FILE* file) { watch(file); };
    sink_ = std::make_unique<Sink>(path_, bytes_, rotated_files_, false, handlers);
    sink_->set_formatter(std::make_unique<spdlog::pattern_formatter>("%v", spdlog::pattern_time_type::utc, ""));
  }

  // Without a buffer a line is one write(2), and nothing of a failed one is left to be written later.
  void watch(std::FILE* file) {
    std::setvbuf(file, nullptr, _IONBF, 0);
    descriptor_ = fileno(file);
    fcntl(descriptor_, F_SETFD, FD_CLOEXEC);
    struct stat status;
    if (fstat(descriptor_, &status) == 0) whole_lines_ = status.st_size;
  }

  void give_up() {
    [[maybe_unused]] const int best_effort = truncate(path_.c_str(), whole_lines_);
    sink_.reset();
    next_try_ = steady_clock::now() + retry_interval;
  }

  const std::string path_;
  const size_t rotated_files_;
  const size_t bytes_;
  std::unique_ptr<Sink> sink_;
  steady_clock::time_point next_try_{};
  steady_clock::time_point next_look_{};
  int descriptor_ = -1;  // the sink's
  off_t whole_lines_ = 0;
};

}  // namespace

// syslog(3) would wait for as long as nobody reads what the system log holds.
class SystemLogger::SystemLog {
 public:
  explicit SystemLog(std::string path) : path_(std::move(path)) {}

  void write(int level, std::string_view text) {
    const std::string line = head(level).append(text);
    if (socket_ && (send(line) || errno == EAGAIN || errno == EMSGSIZE)) return;
    // Nobody was there the last time, or somebody else.
    connect();
    if (socket_) send(line);
  }

 private:
  // As syslog(3) writes it.
  static std::string head(int level) {
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    localtime_r(&now, &local);
    char text[64];
    const int size =
        std::snprintf(text, sizeof text, "<%d>", LOG_DAEMON | std::clamp(level, LOG_EMERG, LOG_DEBUG));
    std::strftime(text + size, sizeof text - static_cast<size_t>(size), "%b %e %H:%M:%S ", &local);
    return std::string(text) + "corvaned[" + std::to_string(getpid()) + "]: ";
  }

  bool send(const std::string& line) const {
    return ::send(socket_->number(), line.data(), line.size(), MSG_NOSIGNAL) >= 0;
  }

  void connect() {
    const wire::SocketAddress address(path_);
    socket_.emplace(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (::connect(socket_->number(), address.get(), address.size()) != 0) socket_.reset();
  }

  const std::string path_;
  std::optional<Descriptor> socket_;
};

class Logger::Handle {
 public:
  struct Written {
    std::string line;
    size_t head;  // the system log has a head of its own
    bool on_disk;

    std::string_view headless() const { return std::string_view(line).substr(head, line.size() - head - 1); }
  };

  void enable_disk_copy(const char* path, int files, size_t bytes) {
    disk_.emplace(path, files, bytes);
    disk_->open();
  }

  Written write(int level, const char* tag, std::string_view text) {
    std::string line = head();
    line += " <" + std::to_string(level) + "> ";
    const size_t head_size = line.size();
    line.append(tag).append(": ");
    const size_t longest = disk_ ? disk_->longest_line() : longest_line_without_disk;
    append_line(line, text, longest - std::min(longest, line.size() + 1));
    line += '\n';
    const bool on_disk = disk_ && disk_->append(line);
    return {std::move(line), head_size, on_disk};
  }

 private:
  std::string head() {
    spdlog::memory_buf_t text;
    head_formatter_.format({spdlog::string_view_t(), spdlog::level::off, spdlog::string_view_t()}, text);
    return {text.data(), text.size()};
  }

  // spdlog's own "%P" asks the kernel for each line.
  spdlog::pattern_formatter head_formatter_{"%Y-%m-%dT%H:%M:%S.%eZ corvaned[" + std::to_string(getpid()) + "]",
                                            spdlog::pattern_time_type::utc, ""};
  std::optional<DiskCopy> disk_;
};

SystemLogger::SystemLogger(Preferences& preferences, bool copy_to_stderr, std::string system_log)
    : preferences_(preferences),
      copy_to_stderr_(copy_to_stderr),
      system_log_(std::make_unique<SystemLog>(std::move(system_log))) {}

SystemLogger::~SystemLogger() = default;

Logger::Handle* SystemLogger::open(const char*, int) {
  try {
    const std::lock_guard lock(mutex_);
    return handles_.emplace_back(std::make_unique<Handle>()).get();
  } catch (const std::exception&) {
    return nullptr;
  }
}

void SystemLogger::enable_disk_copy(Handle* handle, const char* path, int files, size_t bytes) {
  try {
    const std::lock_guard lock(mutex_);
    handle->enable_disk_copy(path, files, bytes);
  } catch (const std::exception&) {
    // Memory is out. What was made of the disk copy by then tries again with the next line.
  }
}

int SystemLogger::configured_level(const char* name) {
  try {
    const auto value = preferences_.copy_value(level_domain, name);
    const auto* const number = plist::cast<plist::Number>(value.get());
    if (number == nullptr || !number->is_integer()) return no_level;
    const bool is_level = number->int64() >= LOG_EMERG && number->int64() <= LOG_DEBUG;
    return is_level ? static_cast<int>(number->int64()) : no_level;
  } catch (const std::exception&) {
    return no_level;
  }
}

void SystemLogger::write(Handle* handle, int level, const char* tag, const char*, const plist::String& argument) {
  try {
    const std::lock_guard lock(mutex_);
    const auto written = handle->write(level, tag, argument.view());
    if (level <= LOG_NOTICE || !written.on_disk) system_log_->write(level, written.headless());
    if (copy_to_stderr_) {
      [[maybe_unused]] const ssize_t best_effort =
          ::write(STDERR_FILENO, written.line.data(), written.line.size());
    }
  } catch (const std::exception&) {
    // Memory is out, and the line is lost: nobody is left to be told.
  }
}

}  // namespace corvane
