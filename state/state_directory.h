#pragma once

#include "platform/files.h"

/// The one place that knows where the daemon keeps its state: /private/var/mobile/Library/cvd, below the
/// platform's root.
namespace corvane {

/// A path in a fixed buffer, so that making one allocates nothing and cannot fail. Start-up refuses a root that
/// is so long that a path would be cut.
struct StatePath {
  char text[path_limit + 1];
};

/// The directory itself.
StatePath state_directory();

/// A file or folder in it; `name` is relative to it, as in "data_ark.plist".
StatePath state_path(const char* name);

/// Opens the directory for calls such as renameat, unless a link leads its path elsewhere. The descriptor, which
/// the caller closes, or -1 with errno set, to ELOOP for such a link. Logs nothing.
int open_state_directory();

}  // namespace corvane
