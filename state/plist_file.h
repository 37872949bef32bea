#pragma once

#include "plist/value.h"

/// Whole property-list files. Paths must be absolute and fully resolved, as for `_safe_open`. Failures are logged;
/// a failure to open or to write also logs owner and mode of the path and its parent. Any thread. Never throws.
namespace corvane {

/// Writes the value, in practice a dictionary, as a binary property list. A new file gets mode 0644; an existing
/// one is truncated and keeps its mode.
///
/// 0, or -1. A value that cannot be encoded and a file that cannot be opened leave the file untouched; a failed
/// write leaves it partly written. After a failure to open or to write, errno is what `_safe_open` or the system
/// set; ENOSPC for a short write.
///
/// The file is written in place and not flushed. For an atomic replacement write another name and rename it.
int store_dict(const char* path, const plist::Value& value);

/// Reads the one property list, binary or XML, in a file: an owned value of any kind, or null. With `immutable`
/// clear its containers are mutable; its strings and data are not. Large data values share the one buffer that the
/// file was read into. After a failure to open or to read, errno is what `_safe_open` or the system set; EIO for a
/// short read.
///
/// A file of 2^32 bytes or more gives null and leaves its descriptor open.
plist::Ref<plist::Value> _load_dict(const char* path, bool immutable);

/// `_load_dict`, immutable.
plist::Ref<plist::Value> load_dict(const char* path);

/// `_load_dict` with mutable containers.
plist::Ref<plist::Value> load_mutable_dict(const char* path);

}  // namespace corvane
