#pragma once

#include "platform/code_signing.h"

namespace corvane {

/// Entitlements are an extended attribute of the executable that a process runs. It counts only if root alone can
/// write the file and the file system is not mounted nosuid, as for a file's own privileges. A process without an
/// executable, a kernel thread or a zombie, has none.
class LinuxCodeSigning final : public CodeSigning {
 public:
  int copy_entitlements_blob(int32_t pid, std::string& blob) override;
};

}  // namespace corvane
