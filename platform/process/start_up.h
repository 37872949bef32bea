#pragma once

#include <optional>
#include <string>

namespace corvane {

/// What the environment says about where and on what the daemon runs.
struct Environment {
  std::string root;            ///< CORVANE_ROOT, or empty
  std::string profile;         ///< CORVANE_PROFILE; for the simulated device only
  bool simulated = false;      ///< CORVANE_PLATFORM is "simulated" rather than "linux"
  bool log_to_stderr = false;  ///< CORVANE_LOG_STDERR is "1"
};

/// Nothing where a variable has a bad value, with the reason in `refusal` in one line.
std::optional<Environment> read_environment(std::string& refusal);

/// Makes malloc(3) return the memory of large values to the system, and keep the memory of usual ones.
void set_memory_thresholds();

/// Makes the process fit to be a daemon: umask 022; descriptors 0 to 2 open; SIGHUP, SIGPIPE and SIGXFSZ ignored,
/// SIGTERM and SIGINT not blocked; the memory thresholds set; and the lock <root>/run/corvaned/corvaned.lock taken
/// for the life of the process. Main thread, before there is another. False on failure, with the reason in
/// `refusal` in one line; a lock that another process holds is left as it is.
bool prepare_process(const std::string& root, std::string& refusal);

}  // namespace corvane
