#include "support/random_challenge.h"

#include <fcntl.h>
#include <unistd.h>
#include <utility>

#include "daemon/log/cv_log.h"
#include "platform/descriptor.h"
#include "state/safe_file.h"

namespace corvane {

plist::Ref<plist::Data> create_random_challenge(size_t size) {
  const Descriptor device(_safe_open("/dev/random", O_RDONLY, 0, S_IFCHR));
  if (!device.is_open()) return nullptr;
  plist::Ref<plist::MutableData> challenge = plist::MutableData::create_or_null(size);
  if (!challenge) return nullptr;
  if (::read(device.number(), challenge->mutable_bytes(), size) != static_cast<ssize_t>(size)) {
    cv_log("create_random_challenge", 0, "failed to read %zu random bytes", size);
    return nullptr;
  }
  return plist::MutableData::freeze(std::move(challenge));
}

}  // namespace corvane
