#pragma once

/// Emptying and inspecting directory trees. The root may be a link; links below it are not followed. Any thread.
namespace corvane {

/// A bit of `flags`: removes the root too.
inline constexpr int remove_root = 1;

/// Deletes everything below `root`, except the file that resolves to `ignore_path`, unless that is null. Of `root`
/// the first `path_limit` bytes count. An `ignore_path` that does not exist is logged, and nothing is kept.
///
/// 0, or 1 when something else was left. The first failed deletion is logged and ends the work. A directory that
/// cannot be read is passed over without a line. Where the kept file lies in a subdirectory the answer is 1,
/// because that directory cannot be removed.
int empty_directory_ignoring_path(const char* root, int flags, const char* ignore_path);

/// `empty_directory_ignoring_path` that keeps nothing but the root.
int empty_directory(const char* root);

/// 0 where the directory has an entry; 1 where it has none, does not exist, or cannot be read.
int is_empty_path(const char* path);

}  // namespace corvane
