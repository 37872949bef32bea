#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace corvane {

/// What the system knows of the code that processes run. Any thread.
class CodeSigning {
 public:
  virtual ~CodeSigning() = default;

  /// Stores the entitlements blob of a running process (plist/entitlements_blob.h) as it was found, not validated;
  /// `blob`, which is empty at first, stays so where the process has none. Returns 0 or an error number. Throws
  /// std::bad_alloc.
  virtual int copy_entitlements_blob(int32_t pid, std::string& blob) = 0;
};

/// The operation that asks for the entitlements blob.
inline constexpr unsigned sigq_entitlements = 7;

/// The kernel's code-signing query. Returns 0 with the blob in `buffer`, which is not touched where there is no
/// blob. Returns -1 with errno set on failure: ERANGE where the blob is larger than `size`, with its header in
/// `buffer`; EINVAL where `size` is less than the header's, or the blob is not as long as its header says; ENOMEM;
/// ESRCH where there is no such process; or what reading the blob failed with.
int sigq(int32_t pid, unsigned operation, void* buffer, size_t size);

}  // namespace corvane
