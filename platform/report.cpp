#include "platform/report.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>

namespace corvane {

namespace {

constexpr auto limited_interval = std::chrono::seconds(1);

std::atomic<ReportSink> report_sink{nullptr};

struct Line {
  char text[4096];
};

__attribute__((format(printf, 1, 0))) Line format_line(const char* format, va_list arguments) {
  Line line;
  std::vsnprintf(line.text, sizeof line.text, format, arguments);
  return line;
}

void send_to_sink(const char* text) {
  if (const ReportSink sink = report_sink.load()) sink(text);
}

}  // namespace

void report(const char* format, ...) noexcept {
  va_list arguments;
  va_start(arguments, format);
  send_to_sink(format_line(format, arguments).text);
  va_end(arguments);
}

void RateLimitedReport::operator()(const char* format, ...) noexcept {
  const auto now = std::chrono::steady_clock::now();
  if (now < next_) {
    ++suppressed_;
    return;
  }
  next_ = now + limited_interval;
  va_list arguments;
  va_start(arguments, format);
  const Line line = format_line(format, arguments);
  va_end(arguments);
  if (suppressed_ == 0) return send_to_sink(line.text);
  report("%s; %u more like that before", line.text, suppressed_);
  suppressed_ = 0;
}

void set_report_sink(ReportSink sink) { report_sink.store(sink); }

}  // namespace corvane
