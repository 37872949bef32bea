#pragma once

#include "plist/value.h"

/// Whole property-list files. Paths as `_safe_open` wants them: absolute and fully resolved. Failures are
/// logged, those of opening with owner and mode of the path and its parent. Any thread.
namespace corvane {

/// Writes the value, in practice a dictionary, as a binary property list. A new file gets mode 0644, one that
/// is there is truncated and keeps its mode. 0, or -1: then errno is as the failing call set it, and the
/// file is untouched if it could not be opened, partly written if it could.
///
/// The file is written in place and not flushed: for an atomic replacement write another name and rename it.
int store_dict(const char* path, const plist::Value& value);

/// Reads the one property list, binary or XML, that a file holds: an owned value of whatever kind, or null.
/// With `immutable` clear its containers, but not its strings and data, are mutable. Large data values share
/// the one buffer that the file was read into.
///
/// A file of 2^32 bytes or more gives null and leaves its descriptor open.
plist::Ref<plist::Value> _load_dict(const char* path, bool immutable);

/// `_load_dict`, immutable.
plist::Ref<plist::Value> load_dict(const char* path);

/// `_load_dict` with mutable containers.
plist::Ref<plist::Value> load_mutable_dict(const char* path);

}  // namespace corvane
