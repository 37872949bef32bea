#pragma once

#include "platform/ipc_listener.h"
#include "plist/value.h"
#include "state/data_ark.h"

namespace corvane {

/// What the status is gathered from, beside what the whole process shares. Null where there is none.
struct StatusSources {
  const IpcListener* public_listener = nullptr;
  const IpcListener* admin_listener = nullptr;
  data_ark* ark = nullptr;
};

/// How the daemon is, for an operator and for programs that collect it. docs/wire-protocol.md tells the entries.
/// Takes no time that grows with the ark. Request queue. Throws std::bad_alloc where memory is out.
plist::Ref<plist::Dictionary> copy_status(const StatusSources& sources);

}  // namespace corvane
