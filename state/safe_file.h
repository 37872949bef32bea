#pragma once

#include <cstddef>
#include <sys/stat.h>

/// Opening files by path so that a link planted in a file's place, a path that leads somewhere else, or an
/// object of the wrong type is refused and reported. Any thread.
///
/// Paths must be absolute and fully resolved: one that the system knows by another name is refused. Opening
/// never waits, also not for the other end of a FIFO, and never makes a terminal the controlling one.
/// Descriptors are close-on-exec.
namespace corvane {

/// Opens `path` with `flags` and O_NOFOLLOW. `expected_type` is a type of stat's mode, such as S_IFREG. The
/// descriptor, which the caller closes, or -1 with one line logged and errno as the failing call set it (a
/// refusal of what was found makes no such call). What O_CREAT or O_TRUNC did before a refusal stays done.
/// A descriptor of a regular file or a directory has O_NONBLOCK set, which means nothing there; one of
/// another type only where `flags` ask for it.
int _safe_open(const char* path, int flags, mode_t mode, mode_t expected_type);

/// `_safe_open` of what exists. With O_CREAT among the flags: -1 and EINVAL, the file system untouched.
int safe_open(const char* path, int flags, mode_t expected_type);

/// `_safe_open` that may create. Without O_CREAT among the flags: -1 and EINVAL, the file system untouched.
int safe_create(const char* path, int flags, mode_t mode, mode_t expected_type);

/// Where a path into the carrier bundle, which may lead through links, really leads. If that lies below one
/// of the allowed bundle directories it is written to `destination`: at most `size` - 1 bytes of it and a
/// terminator, nothing for a size of 0. 0 whenever the path could be opened and resolved, also when none of
/// the directories matched, which leaves `destination` untouched, and when the result was cut: fill it
/// before, or compare it after. -1 with errno set when the path cannot be opened or resolved.
///
/// Of each allowed directory only the first `size` bytes are compared. Throws std::bad_alloc where memory is
/// out.
int safe_bundle(const char* path, char* destination, size_t size);

/// Logs owner, group and mode of what `path` leads to. Leaves errno alone.
void log_file_info(const char* path);

/// `log_file_info` of the path and of its parent directory, so that the log alone explains a permission
/// fault. Leaves errno alone.
void log_path_and_parent(const char* path);

/// Cuts a path down to its parent, in place: "/a/b" to "/a", "a//b" to "a", "/a" to "/", "a" to ".". Returns
/// the buffer. Null and the empty string stay as they are.
char* path_dirname(char* path);

/// Cuts a path down to its last component, in place: "/a/b/" to "b", "//" to "/". Returns the buffer. Null
/// and the empty string stay as they are.
char* path_basename(char* path);

}  // namespace corvane
