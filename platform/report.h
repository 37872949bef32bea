#pragma once

#include <chrono>

namespace corvane {

/// Logs one line for platform code, which lies below the daemon's log and cannot call it. The format is printf's;
/// a line of more than 4 KiB is cut. Allocates nothing, so that it can be used when memory is out. Lines are
/// dropped until `main` has set a sink. Any thread.
void report(const char* format, ...) noexcept __attribute__((format(printf, 1, 2)));

using ReportSink = void (*)(const char* text) noexcept;
void set_report_sink(ReportSink sink);

/// Reports at most one line a second, for events that clients can cause at any rate. A line that follows
/// suppressed ones ends with their count. One thread.
class RateLimitedReport {
 public:
  void operator()(const char* format, ...) noexcept __attribute__((format(printf, 2, 3)));

 private:
  std::chrono::steady_clock::time_point next_{};
  unsigned suppressed_ = 0;
};

}  // namespace corvane
