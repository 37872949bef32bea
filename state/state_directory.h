#pragma once

#include "platform/files.h"

/// The one place that knows where the daemon keeps its state: /private/var/mobile/Library/cvd, below the
/// platform's root.
namespace corvane {

/// A path in a buffer of its own, so that making one takes no memory and cannot fail. Start-up refuses a root
/// under which a path would be cut.
struct StatePath {
  char text[path_limit + 1];
};

/// The directory itself.
StatePath state_directory();

/// A file or folder in it; `name` is relative to it, as in "data_ark.plist".
StatePath state_path(const char* name);

}  // namespace corvane
