#include "platform/linux/linux_code_signing.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/xattr.h>

#include "platform/descriptor.h"
#include "plist/entitlements_blob.h"

namespace corvane {

namespace {

// An access control list that lets others write shows in the group's write bit.
bool only_root_can_write(const struct stat& status) {
  return status.st_uid == 0 && (status.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

bool process_exists(const std::string& folder) {
  struct stat status {};
  return stat(folder.c_str(), &status) == 0;
}

}  // namespace

int LinuxCodeSigning::copy_entitlements_blob(int32_t pid, std::string& blob) {
  // The link leads to the file that runs, even after it was renamed, and the descriptor stays with that file.
  const std::string process = "/proc/" + std::to_string(pid);
  const Descriptor executable(open((process + "/exe").c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  if (!executable.is_open()) {
    if (errno != ENOENT) return errno;
    // Kernel threads and zombies have no executable.
    return process_exists(process) ? 0 : ESRCH;
  }

  struct stat status {};
  struct statvfs mount {};
  if (fstat(executable.number(), &status) != 0 || fstatvfs(executable.number(), &mount) != 0) return errno;
  if (!only_root_can_write(status) || (mount.f_flag & ST_NOSUID) != 0) return 0;

  blob.resize(plist::entitlements_attribute_limit);
  const ssize_t size = fgetxattr(executable.number(), plist::entitlements_attribute, blob.data(), blob.size());
  blob.resize(size < 0 ? 0 : static_cast<size_t>(size));
  if (size < 0) return errno == ENODATA || errno == ENOTSUP ? 0 : errno;
  return size == 0 ? EINVAL : 0;
}

}  // namespace corvane
