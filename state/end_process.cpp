#include "state/end_process.h"

#include <unistd.h>

#include "daemon/log/cv_log.h"

namespace corvane {

// Runs no destructors: the other thread may still use what they would destroy.
void end_process(const char* function, const char* reason) {
  cv_log(function, 0, "%s", reason);
  _exit(-1);
}

}  // namespace corvane
