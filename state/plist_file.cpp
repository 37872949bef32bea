#include "state/plist_file.h"

#include <cerrno>
#include <cstdint>
#include <fcntl.h>
#include <new>

#include "daemon/log/cv_log.h"
#include "daemon/log/error_text.h"
#include "platform/descriptor.h"
#include "plist/reader.h"
#include "plist/writer.h"
#include "state/safe_file.h"

namespace corvane {

namespace {

constexpr off_t too_big = off_t{1} << 32;

// Into one piece, because it is written with one call.
bool encode(const plist::Value& value, plist::ByteChain& bytes) {
  try {
    return !plist::encode_binary(value, bytes, SIZE_MAX);
  } catch (const std::bad_alloc&) {
    return false;
  }
}

// A short count is no error to the system, which leaves errno as it was. These set the reason.

bool write_in_one_call(int descriptor, std::string_view bytes) {
  const ssize_t written = ::write(descriptor, bytes.data(), bytes.size());
  if (written == static_cast<ssize_t>(bytes.size())) return true;
  if (written >= 0) errno = ENOSPC;
  return false;
}

bool read_in_one_call(int descriptor, char* bytes, size_t size) {
  const ssize_t count = ::read(descriptor, bytes, size);
  if (count == static_cast<ssize_t>(size)) return true;
  if (count >= 0) errno = EIO;
  return false;
}

int write_file(const char* path, std::string_view bytes) {
  const Descriptor file(_safe_open(path, O_WRONLY | O_CREAT | O_TRUNC, 0644, S_IFREG));
  if (!file.is_open()) {
    cv_log("store_dict", 0, "Could not create %s: %s", path, error_text(errno));
    log_path_and_parent(path);
    return -1;
  }
  if (!write_in_one_call(file.number(), bytes)) {
    cv_log("store_dict", 0, "Could not write to %s: %s", path, error_text(errno));
    log_path_and_parent(path);
    return -1;
  }
  return 0;
}

plist::Ref<plist::Data> read_file(const char* path, int descriptor, size_t size) {
  auto buffer = plist::MutableData::create_or_null(size);
  if (!buffer) {
    cv_log("_load_dict", 0, "Could not allocate buffer");
    return nullptr;
  }
  if (!read_in_one_call(descriptor, buffer->mutable_bytes(), size)) {
    cv_log("_load_dict", 0, "Could not read %s: %s", path, error_text(errno));
    return nullptr;
  }
  return buffer;
}

plist::Ref<plist::Value> parse(const plist::Ref<plist::Data>& bytes, bool immutable) {
  const auto containers = immutable ? plist::Containers::immutable : plist::Containers::made_mutable;
  plist::Decoded decoded = plist::decode(bytes, containers);
  if (!decoded.value) cv_log("_load_dict", 0, "Could not create dictionary from stream");
  return std::move(decoded.value);
}

}  // namespace

int store_dict(const char* path, const plist::Value& value) {
  plist::ByteChain bytes;
  if (!encode(value, bytes)) {
    cv_log("store_dict", 0, "Could not serialize dictionary to stream");
    return -1;
  }
  try {
    return write_file(path, bytes.pieces().front());
  } catch (const std::bad_alloc&) {
    cv_log("store_dict", 0, "Could not get serialized data from stream");
    return -1;
  }
}

plist::Ref<plist::Value> _load_dict(const char* path, bool immutable) {
  Descriptor file(_safe_open(path, O_RDONLY | O_NOFOLLOW, 0, S_IFREG));
  if (!file.is_open()) {
    cv_log("_load_dict", 0, "Could not open %s: %s", path, error_text(errno));
    log_path_and_parent(path);
    return nullptr;
  }
  struct stat status;
  if (fstat(file.number(), &status) != 0) {
    cv_log("_load_dict", 0, "Could not fstat %s: %s", path, error_text(errno));
    log_path_and_parent(path);
    return nullptr;
  }
  if (status.st_size >= too_big) {
    cv_log("_load_dict", 0, "too big for our purposes");
    file.detach();
    return nullptr;
  }
  const auto bytes = read_file(path, file.number(), static_cast<size_t>(status.st_size));
  return bytes ? parse(bytes, immutable) : nullptr;
}

plist::Ref<plist::Value> load_dict(const char* path) { return _load_dict(path, true); }

plist::Ref<plist::Value> load_mutable_dict(const char* path) { return _load_dict(path, false); }

}  // namespace corvane
