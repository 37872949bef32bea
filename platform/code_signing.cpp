#include "platform/code_signing.h"

#include <cerrno>
#include <cstring>
#include <new>

#include "platform/platform.h"
#include "plist/entitlements_blob.h"

namespace corvane {

namespace {

int fail(int error) {
  errno = error;
  return -1;
}

}  // namespace

int sigq(int32_t pid, unsigned operation, void* buffer, size_t size) {
  if (operation != sigq_entitlements || size < plist::entitlements_header_size) return fail(EINVAL);
  std::string blob;
  try {
    if (const int error = platform().code_signing().copy_entitlements_blob(pid, blob)) return fail(error);
  } catch (const std::bad_alloc&) {
    return fail(ENOMEM);
  }
  if (blob.empty()) return 0;
  if (!plist::is_entitlements_blob_whole(blob)) return fail(EINVAL);
  const bool fits = blob.size() <= size;
  std::memcpy(buffer, blob.data(), fits ? blob.size() : plist::entitlements_header_size);
  return fits ? 0 : fail(ERANGE);
}

}  // namespace corvane
