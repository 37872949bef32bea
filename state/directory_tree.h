#pragma once

/// Emptying and inspecting directory trees. The root may be a link; no link below it is followed. Any thread.
namespace corvane {

/// For `flags`: removes the root too.
inline constexpr int remove_root = 1;

/// Deletes everything below `root`, except what resolves to `ignore_path` where that is not null. 0, or 1
/// when something was left: the first entry that cannot be deleted is logged and ends the work. An
/// `ignore_path` that does not exist is logged and keeps nothing. A file that is kept below a subdirectory
/// thus makes the answer 1, for that directory cannot be removed. Of `root`, `path_limit` bytes count.
int empty_directory_ignoring_path(const char* root, int flags, const char* ignore_path);

/// `empty_directory_ignoring_path` that keeps nothing but the root.
int empty_directory(const char* root);

/// 1 where the directory has no entry or does not exist, 0 where it has one.
int is_empty_path(const char* path);

}  // namespace corvane
