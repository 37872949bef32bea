#pragma once

#include "platform/code_signing.h"

namespace corvane {

/// Entitlements are an extended attribute of the executable that a process runs. Only that of a file counts
/// which root alone can write, on a file system that is not mounted nosuid: the same that the kernel asks
/// before it honours a file's own privileges.
class LinuxCodeSigning final : public CodeSigning {
 public:
  int copy_entitlements_blob(int32_t pid, std::string& blob) override;
};

}  // namespace corvane
