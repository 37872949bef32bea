#include "platform/report.h"

#include <atomic>

namespace corvane {

namespace {

std::atomic<ReportSink> report_sink{nullptr};

}  // namespace

void report(const std::string& text) {
  if (const ReportSink sink = report_sink.load()) sink(text);
}

void set_report_sink(ReportSink sink) { report_sink.store(sink); }

}  // namespace corvane
