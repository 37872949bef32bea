#include "platform/process/small_file.h"

#include <cerrno>
#include <ctime>
#include <fcntl.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>
#include <utility>

#include "platform/descriptor.h"
#include "plist/reader.h"
#include "plist/value_size.h"

namespace corvane {

namespace {

// The kernel stamps files with the time of its last tick, so two changes that follow each other closely may
// look like one. The slowest tick in use is 10 ms.
constexpr int64_t stamp_settles_after_ns = 20'000'000;

// With what occurs several times counted each time, as comparing and logging do.
constexpr size_t repeated_limit = 4 * small_file_limit;

SmallFile failure(int error) { return {nullptr, std::generic_category().message(error), error != ENOENT}; }

int64_t nanoseconds(const timespec& time) { return int64_t{time.tv_sec} * 1'000'000'000 + time.tv_nsec; }

int64_t clock_time() {
  timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  return nanoseconds(now);
}

bool is_settled(int64_t changed, int64_t now) {
  const int64_t age = now - changed;
  // A time further ahead is from before the clock was set back, so no new change will have the same.
  return age > stamp_settles_after_ns || age < -stamp_settles_after_ns;
}

SmallFile read_bytes(int descriptor, size_t size) {
  const auto buffer = plist::MutableData::create(size);
  size_t filled = 0;
  while (filled < size) {
    const ssize_t got = read(descriptor, buffer->mutable_bytes() + filled, size - filled);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return failure(errno);
    if (got == 0) break;
    filled += static_cast<size_t>(got);
  }
  return {plist::Data::slice(buffer, 0, filled), {}, false};
}

DictionaryFile::Contents decode_dictionary(const SmallFile& file) {
  if (!file.bytes) return {nullptr, file.fault};
  const plist::Decoded decoded = plist::decode(file.bytes, plist::Containers::immutable);
  if (decoded.error) return {nullptr, std::string(decoded.error->view())};
  auto* const dictionary = plist::cast<plist::Dictionary>(decoded.value.get());
  if (dictionary == nullptr) return {nullptr, "not a dictionary"};
  if (plist::estimate_size(*dictionary, repeated_limit) > repeated_limit) {
    return {nullptr, "repeats itself to more than " + std::to_string(repeated_limit) + " bytes"};
  }
  return {dictionary, {}};
}

}  // namespace

SmallFile read_small_file(const std::string& path) {
  // Opening a FIFO or a terminal must neither wait nor have an effect.
  const Descriptor file(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  struct stat status;
  if (!file.is_open() || fstat(file.number(), &status) != 0) return failure(errno);
  if (!S_ISREG(status.st_mode)) return {nullptr, "not a regular file", false};
  const auto size = static_cast<size_t>(status.st_size);
  if (size > small_file_limit)
    return {nullptr, "larger than " + std::to_string(small_file_limit) + " bytes", false};
  return read_bytes(file.number(), size);
}

DictionaryFile::Contents DictionaryFile::contents() {
  const std::lock_guard lock(mutex_);
  refresh();
  return contents_;
}

plist::Ref<plist::Value> DictionaryFile::copy_value(std::string_view key) {
  const std::lock_guard lock(mutex_);
  refresh();
  return contents_.dictionary ? contents_.dictionary->get(key) : nullptr;
}

void DictionaryFile::refresh() {
  if (settled_ && take_stamp(path_) == stamp_) return;
  settled_ = false;
  // In this order no change in between goes unnoticed: at worst the file is read once too often.
  const int64_t now = clock_time();
  const Stamp stamp = take_stamp(path_);
  const SmallFile file = read_small_file(path_);
  take_in(decode_dictionary(file), stamp);
  settled_ = !file.may_pass && is_settled(stamp.changed, now);
}

// A file that is not settled is read at each call; the same contents are no new version.
void DictionaryFile::take_in(Contents fresh, const Stamp& stamp) {
  const bool is_known = stamp == stamp_ && fresh.fault == contents_.fault &&
                        plist::equal(fresh.dictionary.get(), contents_.dictionary.get());
  stamp_ = stamp;
  if (is_known) return;
  fresh.version = contents_.version + 1;
  contents_ = std::move(fresh);
}

DictionaryFile::Stamp DictionaryFile::take_stamp(const std::string& path) {
  struct stat status;
  if (stat(path.c_str(), &status) != 0) return {};
  return {status.st_dev, status.st_ino, status.st_size, nanoseconds(status.st_mtim), nanoseconds(status.st_ctim)};
}

}  // namespace corvane
