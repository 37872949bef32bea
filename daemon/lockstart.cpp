#include "daemon/lockstart.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>

#include "daemon/log/cv_log.h"
#include "device/telephony.h"
#include "platform/descriptor.h"
#include "state/safe_file.h"
#include "state/state_directory.h"

namespace corvane {

namespace {

constexpr mode_t state_directory_mode = 0700;

void create_state_directory(const char* path) {
  if (mkdir(path, state_directory_mode) == 0 || errno == EEXIST) return;
  cv_log("lockstart_local", 0, "Could not mkdir %s : %s", path, std::strerror(errno));
  log_path_and_parent(path);
}

// mkdir does not change the mode of a directory that is already there.
void force_state_directory_mode(const char* path) {
  const Descriptor directory(safe_open(path, O_NOFOLLOW, S_IFDIR));
  if (!directory.is_open()) return cv_log("lockstart_local", 0, "couldn't open %s", path);
  if (fchmod(directory.number(), state_directory_mode) != 0) {
    cv_log("lockstart_local", 0, "Could not chmod %s: %s", path, std::strerror(errno));
  }
}

}  // namespace

DataArk lockstart_local() {
  const StatePath path = state_directory();
  create_state_directory(path.text);
  force_state_directory_mode(path.text);

  DataArk ark = data_ark_load();
  if (ark == nullptr) return nullptr;
  registerForTelvoCallNotifications(ark.get());
  data_ark_store(ark.get());
  return ark;
}

}  // namespace corvane
