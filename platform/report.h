#pragma once

#include <string>

namespace corvane {

/// How platform code, which lies below the daemon's log, says in one line what went wrong. Any thread.
/// Nothing is said before `main` has set a sink.
void report(const std::string& text);

using ReportSink = void (*)(const std::string& text);
void set_report_sink(ReportSink sink);

}  // namespace corvane
