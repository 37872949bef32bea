#pragma once

#include <string>

#include "plist/value.h"

namespace corvane::tools {

/// The daemon's status as metrics, in the text format 0.0.4 that Prometheus and the textfile collector of its node
/// exporter read. What the status does not have is left out.
std::string open_metrics(const plist::Dictionary& status);

}  // namespace corvane::tools
