#pragma once

#include <string>

#include "plist/value.h"

namespace corvane::tools {

/// The daemon's status as metrics, in the text format OpenMetrics 1.0. The textfile collector of Prometheus' node
/// exporter, which reads the older text format 0.0.4, takes it too, but counters have no type for it. What the
/// status does not have is left out.
std::string open_metrics(const plist::Dictionary& status);

}  // namespace corvane::tools
