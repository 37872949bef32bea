#include "tools/entitlements.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include "plist/entitlements_blob.h"
#include "plist/reader.h"
#include "tools/files.h"

namespace corvane::tools {

namespace {

std::string read_entitlements(const std::string& path) {
  std::string text = read_file(path);
  const size_t limit = plist::entitlements_attribute_limit - plist::entitlements_header_size;
  if (text.size() > limit) throw FileFault(path, "longer than " + std::to_string(limit) + " bytes");
  const plist::Decoded decoded = plist::decode(plist::Data::create(text), plist::Containers::immutable);
  if (decoded.error) throw FileFault(path, std::string(decoded.error->view()));
  const bool fits = decoded.encoding == plist::Encoding::xml && decoded.value->kind() == plist::Kind::dictionary;
  if (!fits) throw FileFault(path, "entitlements are a dictionary in an XML property list");
  return text;
}

// Returns null, or what went wrong.
const char* write_attribute(int executable, const std::string& blob) {
  struct stat status {};
  if (fstat(executable, &status) != 0) return std::strerror(errno);
  if (!S_ISREG(status.st_mode)) return "not a regular file";
  if (status.st_uid != 0 || (status.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
    return "only a file that belongs to root, and that nobody else can write, can have entitlements";
  }
  if (fsetxattr(executable, plist::entitlements_attribute, blob.data(), blob.size(), 0) == 0) return nullptr;
  switch (errno) {
    case EPERM:
      return "writing entitlements needs root's privileges (CAP_SYS_ADMIN)";
    case ENOTSUP:
      return "this file system does not keep extended attributes";
    case ENOSPC:
    case E2BIG:
    case ERANGE:
      return "this file system has no room for so long an attribute";
    default:
      return std::strerror(errno);
  }
}

}  // namespace

void sign_executable(const std::string& executable, const std::string& property_list) {
  const std::string blob = plist::make_entitlements_blob(read_entitlements(property_list));
  const int descriptor = open(executable.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  if (descriptor < 0) throw FileFault(executable, std::strerror(errno));
  const char* const fault = write_attribute(descriptor, blob);
  close(descriptor);
  if (fault != nullptr) throw FileFault(executable, fault);
}

}  // namespace corvane::tools
