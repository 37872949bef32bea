#include "support/entitlements.h"

#include <cerrno>
#include <cstring>
#include <new>

#include "daemon/log/cv_log.h"
#include "platform/code_signing.h"
#include "plist/big_endian.h"
#include "plist/entitlements_blob.h"
#include "plist/reader.h"

namespace corvane {

using plist::Ref;

namespace {

constexpr size_t length_offset = 4;

// The magic is logged in this byte order on every machine.
uint32_t load_little_endian(const char* bytes) {
  return __builtin_bswap32(static_cast<uint32_t>(plist::load_big_endian<4>(bytes)));
}

// Asks for the size first, then for the blob. Null where there is none.
Ref<plist::Data> copy_blob(int32_t pid) {
  char header[plist::entitlements_header_size] = {};
  if (sigq(pid, sigq_entitlements, header, sizeof header) == 0) return nullptr;
  if (errno != ERANGE) {
    cv_log("copy_entitlements_for_pid", 0, "sigq1(%d): %s\n", pid, std::strerror(errno));
    return nullptr;
  }
  const size_t size = plist::load_big_endian<4>(header + length_offset);
  auto blob = plist::MutableData::create_or_null(size);
  if (!blob) return nullptr;
  // Zeroed, because nothing is written where the process has lost its entitlements since it was asked for the
  // size.
  std::memset(blob->mutable_bytes(), 0, size);
  if (sigq(pid, sigq_entitlements, blob->mutable_bytes(), size) != 0) {
    cv_log("copy_entitlements_for_pid", 0, "sigq2(%d): %s\n", pid, std::strerror(errno));
    return nullptr;
  }
  return blob;
}

// The parsed values may share the blob's bytes and keep them alive.
Ref<plist::Dictionary> parse(const Ref<plist::Data>& blob, size_t length) {
  const size_t header = plist::entitlements_header_size;
  const auto payload = plist::Data::slice(blob, header, length - header);
  return plist::cast<plist::Dictionary>(plist::decode(payload, plist::Containers::immutable).value.get());
}

}  // namespace

Ref<plist::Dictionary> copy_entitlements_for_pid(int32_t pid) try {
  const Ref<plist::Data> blob = copy_blob(pid);
  if (!blob) return nullptr;
  const char* const bytes = blob->bytes().data();
  if (plist::load_big_endian<4>(bytes) != plist::entitlements_magic) {
    cv_log("copy_entitlements_for_pid", 0, "bad magic 0x%08x\n", load_little_endian(bytes));
    return nullptr;
  }
  const size_t length = plist::load_big_endian<4>(bytes + length_offset);
  if (length <= plist::entitlements_header_size) return nullptr;
  return parse(blob, length);
} catch (const std::bad_alloc&) {
  return nullptr;
}

}  // namespace corvane
