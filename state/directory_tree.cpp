#include "state/directory_tree.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fts.h>
#include <memory>
#include <unistd.h>

#include "daemon/log/cv_log.h"
#include "platform/files.h"
#include "state/safe_file.h"

namespace corvane {

namespace {

constexpr char emptying[] = "empty_directory_ignoring_path";

struct Free {
  void operator()(char* text) const { std::free(text); }
};
using ResolvedPath = std::unique_ptr<char, Free>;

// Null where the path cannot be resolved.
ResolvedPath resolve(const char* path) { return ResolvedPath(realpath(path, nullptr)); }

ResolvedPath resolve_ignored(const char* ignore_path) {
  if (ignore_path == nullptr) return nullptr;
  ResolvedPath kept = resolve(ignore_path);
  if (!kept) cv_log(emptying, 0, "ignorePath %s was invalid", ignore_path);
  return kept;
}

FTS* open_walk(const char* function, const char* root) {
  char* const roots[] = {const_cast<char*>(root), nullptr};
  FTS* walk = fts_open(roots, FTS_PHYSICAL | FTS_NOCHDIR | FTS_COMFOLLOW, nullptr);
  if (walk == nullptr) cv_log(function, 0, "fts_open: %s", std::strerror(errno));
  return walk;
}

bool close_walk(const char* function, FTS* walk) {
  if (fts_close(walk) == 0) return true;
  cv_log(function, 0, "fts_close: %s", std::strerror(errno));
  return false;
}

bool is_kept(const char* path, const char* kept) {
  if (kept == nullptr) return false;
  const ResolvedPath resolved = resolve(path);
  if (!resolved || std::strcmp(resolved.get(), kept) != 0) return false;
  cv_log(emptying, 0, "ignoring unlink of %s", kept);
  return true;
}

bool remove_file(const char* path, const char* kept) {
  if (is_kept(path, kept) || unlink(path) == 0) return true;
  cv_log(emptying, 0, "unlink %s: %s", path, std::strerror(errno));
  log_path_and_parent(path);
  return false;
}

bool remove_directory(const char* path) {
  if (rmdir(path) == 0) return true;
  cv_log(emptying, 0, "rmdir %s: %s", path, std::strerror(errno));
  log_path_and_parent(path);
  return false;
}

// False for a failure, which ends the work. What cannot be deleted anyway is passed over.
bool remove_entry(const FTSENT& entry, int flags, const char* kept) {
  switch (entry.fts_info) {
    case FTS_F:
    case FTS_SL:
    case FTS_SLNONE:
    case FTS_DEFAULT:
      return remove_file(entry.fts_path, kept);
    case FTS_DP:
      return ((flags & remove_root) == 0 && entry.fts_level == FTS_ROOTLEVEL) || remove_directory(entry.fts_path);
    default:
      return true;
  }
}

// What could not be opened or looked at was not deleted, unless it has vanished meanwhile.
bool is_left(const FTSENT& entry) {
  switch (entry.fts_info) {
    case FTS_DNR:
    case FTS_NS:
    case FTS_ERR:
    case FTS_DC:
      return entry.fts_errno != ENOENT;
    default:
      return false;
  }
}

}  // namespace

int empty_directory_ignoring_path(const char* root, int flags, const char* ignore_path) {
  char root_path[path_limit + 1];
  std::snprintf(root_path, sizeof root_path, "%s", root);
  const ResolvedPath kept = resolve_ignored(ignore_path);
  FTS* walk = open_walk(emptying, root_path);
  if (walk == nullptr) return 1;

  bool stopped = false, all_deleted = true;
  FTSENT* entry = fts_read(walk);
  for (; entry != nullptr && !stopped; entry = fts_read(walk)) {
    stopped = !remove_entry(*entry, flags, kept.get());
    if (stopped || is_left(*entry)) all_deleted = false;
  }
  // At its end a walk sets errno to 0; where it breaks off, to the reason.
  if (entry == nullptr && errno != 0) all_deleted = false;
  return close_walk(emptying, walk) && all_deleted ? 0 : 1;
}

int empty_directory(const char* root) { return empty_directory_ignoring_path(root, 0, nullptr); }

int is_empty_path(const char* path) {
  FTS* walk = open_walk("is_empty_path", path);
  if (walk == nullptr) return 1;
  bool empty = true;
  for (const FTSENT* entry; empty && (entry = fts_read(walk)) != nullptr;) {
    empty = entry->fts_level == FTS_ROOTLEVEL;
  }
  close_walk("is_empty_path", walk);
  return empty ? 1 : 0;
}

}  // namespace corvane
