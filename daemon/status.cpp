#include "daemon/status.h"

#include <string>

#include "daemon/log/cv_log.h"
#include "daemon/protocols.h"
#include "device/telephony.h"
#include "platform/notifications.h"
#include "platform/platform.h"
#include "platform/status.h"
#include "wire/methods.h"

namespace corvane {

using plist::Boolean;
using plist::MutableDictionary;
using plist::Ref;

namespace {

constexpr double unix_time_of_2001 = 978307200;

/// A dictionary, one entry after the other.
class Record {
 public:
  Record& add(std::string_view key, uint64_t count) { return add(key, plist::Number::create_uint64(count)); }
  Record& add(std::string_view key, Ref<plist::Value> value) {
    dictionary_->set(key, std::move(value));
    return *this;
  }
  Record& add(std::string_view key, const Record& record) { return add(key, record.dictionary_); }

  const Ref<MutableDictionary>& dictionary() const { return dictionary_; }

 private:
  const Ref<MutableDictionary> dictionary_ = MutableDictionary::create();
};

Ref<plist::Value> yes_or_no(bool value) { return Boolean::of(value); }

Record process_record() {
  const ProcessStatus process = platform().process_status();
  return Record()
      .add("PID", static_cast<uint64_t>(process.pid))
      .add("Started", plist::Date::create(static_cast<double>(process.started) - unix_time_of_2001))
      .add("Uptime", process.uptime_seconds)
      .add("ResidentBytes", process.resident_bytes)
      .add("PrivateBytes", process.private_bytes)
      .add("Descriptors", process.descriptors)
      .add("DescriptorLimit", process.descriptor_limit);
}

Record connections_record(const ConnectionCounts& counts) {
  Record closed;
  for (size_t reason = 0; reason < counts.closed.size(); ++reason) {
    closed.add(close_reason_names[reason], counts.closed[reason]);
  }
  return Record()
      .add("Open", counts.open)
      .add("Limit", counts.limit)
      .add("Accepted", counts.accepted)
      .add("Closed", closed);
}

Record service_record(const IpcListener* listener, const MethodTable& methods) {
  const MethodTable::Counts& requests = methods.counts();
  const Record errors = Record()
                            .add(std::to_string(CorvaneError::unexpected_parameter), requests.bad_arguments)
                            .add(std::to_string(CorvaneError::operation_failed), requests.failures);
  return connections_record(listener == nullptr ? ConnectionCounts() : listener->counts())
      .add("Answered", requests.answered)
      .add("Errors", errors);
}

Record notifications_record() {
  const NotificationCounts counts = platform().notifications().counts();
  return connections_record(counts.subscribers).add("Posted", counts.posted).add("Missed", counts.missed);
}

Record ark_record(data_ark* ark) {
  const ArkStatus status = data_ark_status(ark);
  return Record()
      .add("Entries", status.entries)
      .add("Unsaved", status.unsaved)
      .add("Stores", status.stores)
      .add("FailedStores", status.failed_stores)
      .add("WasUnreadable", yes_or_no(status.was_unreadable));
}

Record log_record() {
  const Logger::Status status = CVLog::getSharedInstance().status();
  return Record()
      .add("Path", plist::String::create(CVLog::disk_copy_path()))
      .add("DiskCopyWorks", yes_or_no(status.disk_copy_works))
      .add("DroppedLines", status.dropped_on_stderr);
}

Record radio_record(const DeviceStatus& device) {
  const RadioCounts counts = radio_counts();
  Record radio;
  radio.add("Available", yes_or_no(device.has_telephony))
      .add("Events", counts.events)
      .add("Changes", counts.changes);
  if (device.bus_connected) radio.add("BusConnected", yes_or_no(*device.bus_connected));
  return radio;
}

}  // namespace

Ref<plist::Dictionary> copy_status(const StatusSources& sources) {
  const DeviceStatus device = platform().device_status();
  const Record services = Record()
                              .add("Public", service_record(sources.public_listener, corvane_protocol()))
                              .add("Admin", service_record(sources.admin_listener, corvane_admin_protocol()))
                              .add("Notifications", notifications_record());
  Record status;
  status.add(wire::version_key, plist::String::create(CORVANE_VERSION))
      .add("Platform", plist::String::create(device.platform))
      .add("Process", process_record())
      .add("Services", services)
      .add("Log", log_record())
      .add("Radio", radio_record(device));
  if (sources.ark != nullptr) status.add("Ark", ark_record(sources.ark));
  return status.dictionary();
}

}  // namespace corvane
