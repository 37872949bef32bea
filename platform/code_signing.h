#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace corvane {

/// What the system knows of the code that processes run. Any thread.
class CodeSigning {
 public:
  virtual ~CodeSigning() = default;

  /// The entitlements blob of a running process (plist/entitlements_blob.h) as it was found; left empty where
  /// the process has none. 0, or the error's number. Throws std::bad_alloc.
  virtual int copy_entitlements_blob(int32_t pid, std::string& blob) = 0;
};

/// The operation that asks for the entitlements blob.
inline constexpr unsigned sigq_entitlements = 7;

/// The kernel's code-signing query. 0 with the blob in `buffer`, which is left alone where there is none; -1
/// with errno set: ERANGE where `size` is too small for the blob, once its header has been written; EINVAL for
/// a blob that is not as long as its header says, or that the buffer cannot even take the header of. So a
/// length that a caller finds in the header is that of bytes that were there.
int sigq(int32_t pid, unsigned operation, void* buffer, size_t size);

}  // namespace corvane
