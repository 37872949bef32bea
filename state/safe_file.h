#pragma once

#include <cstddef>
#include <sys/stat.h>

/// Opening files by path so that a link planted in a file's place, a path that leads somewhere else, and an
/// object of the wrong type are refused and reported. Any thread.
///
/// Paths must be absolute and fully resolved: a path is refused if the system knows the object by another path.
/// Opening never waits, not even for the other end of a FIFO, and never acquires a controlling terminal.
/// Descriptors are close-on-exec.
namespace corvane {

/// Opens `path` with `flags` and O_NOFOLLOW. `expected_type` is a file type of stat's mode, such as S_IFREG.
///
/// The descriptor, which the caller closes, or -1 with one line logged and errno set: by the call that failed; to
/// ELOOP if the path leads elsewhere; if the object has another type, to ENOTDIR where a directory was expected,
/// to EISDIR where a directory was found, and to EINVAL otherwise. A file that O_CREAT created or O_TRUNC cut
/// before the refusal stays that way.
///
/// Reading and writing the descriptor waits, unless `flags` have O_NONBLOCK.
int _safe_open(const char* path, int flags, mode_t mode, mode_t expected_type);

/// `_safe_open` of what exists. With O_CREAT in `flags`: -1 and EINVAL, without touching the file system.
int safe_open(const char* path, int flags, mode_t expected_type);

/// `_safe_open` that may create. Without O_CREAT in `flags`: -1 and EINVAL, without touching the file system.
int safe_create(const char* path, int flags, mode_t mode, mode_t expected_type);

/// Resolves a path into the carrier bundle, which may lead through links. Where the resolved path begins with one
/// of the allowed bundle directories, its first `size` - 1 bytes and a terminator are written to `destination`;
/// nothing is written for a size of 0. Of each allowed directory only the first `size` bytes are compared.
///
/// 0 whenever the path could be opened and resolved, also when no directory matched, which leaves `destination`
/// untouched, and when the path was cut: fill `destination` before, or compare it afterwards. -1 with errno set
/// when the path cannot be opened or resolved. Throws std::bad_alloc where memory is out.
int safe_bundle(const char* path, char* destination, size_t size);

/// Logs owner, group and mode of what `path` leads to. Preserves errno.
void log_file_info(const char* path);

/// `log_file_info` of the path and of its parent directory, so that the log alone explains a permission
/// fault. Preserves errno.
void log_path_and_parent(const char* path);

/// Cuts a path down to its parent, in place: "/a/b" to "/a", "a//b" to "a", "/a" to "/", "a" to ".". Returns
/// the buffer. Null and the empty string stay as they are.
char* path_dirname(char* path);

/// Cuts a path down to its last component, in place: "/a/b/" to "b", "//" to "/". Returns the buffer. Null
/// and the empty string stay as they are.
char* path_basename(char* path);

}  // namespace corvane
