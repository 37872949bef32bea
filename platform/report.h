#pragma once

#include <chrono>

namespace corvane {

/// How platform code, which lies below the daemon's log, says in one line what went wrong. Any thread. The format
/// is printf's; a line of more than 4 KiB is cut. Allocates nothing, and so may be used where memory is out.
/// Nothing is said before `main` has set a sink.
void report(const char* format, ...) noexcept __attribute__((format(printf, 1, 2)));

using ReportSink = void (*)(const char* text) noexcept;
void set_report_sink(ReportSink sink);

/// For what others can cause as often as they like: reports at most once a second, and then how often it had
/// nothing to say since. One thread.
class LimitedReport {
 public:
  void operator()(const char* format, ...) noexcept __attribute__((format(printf, 2, 3)));

 private:
  std::chrono::steady_clock::time_point next_{};
  unsigned unsaid_ = 0;
};

}  // namespace corvane
