#include "platform/linux/linux_telephony.h"

#include <algorithm>
#include <system_error>
#include <utility>

#include "platform/report.h"

namespace corvane {

using plist::Ref;

namespace {

using Deadline = std::optional<std::chrono::steady_clock::time_point>;

Deadline earlier(Deadline a, Deadline b) {
  if (!a || !b) return a ? a : b;
  return std::min(*a, *b);
}

class SnapshotConnection final : public TelvoServerConnection {
 public:
  SnapshotConnection(std::shared_ptr<const RadioSnapshot> snapshot, DeviceProperties& properties)
      : snapshot_(std::move(snapshot)), properties_(properties) {}

  TelvoStatus copy(Query query, Ref<plist::Value>& slot) override {
    switch (query) {
      case Query::sim_identity:
        return copy_from_card(snapshot_->identity, slot);
      case Query::mobile_subscriber_identity:
        return copy_from_card(snapshot_->subscriber, slot);
      case Query::group_identifier_1:
        return copy_from_card(snapshot_->group_1, slot);
      case Query::group_identifier_2:
        return copy_from_card(snapshot_->group_2, slot);
      case Query::firmware_version:
        slot = snapshot_->firmware_version;
        break;
      case Query::bootloader_version:
        slot = property("BasebandBootloaderVersion");
        break;
      case Query::firmware_security_info:
        slot = property("BasebandFirmwareSecurityInfo");
        break;
    }
    return {};
  }

 private:
  TelvoStatus copy_from_card(const Ref<plist::Value>& fact, Ref<plist::Value>& slot) const {
    if (!snapshot_->card_failure.failed()) slot = fact;
    return snapshot_->card_failure;
  }
  Ref<plist::Value> property(std::string_view name) const {
    return properties_.copy_answer(*plist::String::create(name));
  }

  const std::shared_ptr<const RadioSnapshot> snapshot_;
  DeviceProperties& properties_;
};

}  // namespace

LinuxTelephony::LinuxTelephony(DeviceProperties& properties)
    : properties_(properties),
      modem_manager_reader_(modem_manager_, bus_, [this] { update(); }),
      ofono_reader_(ofono_, bus_, [this] { update(); }),
      deadline_(bus_.loop(), [this] { update(); }),
      snapshot_(follower_.snapshot()) {}

std::shared_ptr<const RadioSnapshot> LinuxTelephony::snapshot() {
  const std::lock_guard lock(mutex_);
  return snapshot_;
}

std::unique_ptr<TelvoServerConnection> LinuxTelephony::connect(void (*)()) {
  auto now = snapshot();
  if (!now->connected) return nullptr;
  return std::make_unique<SnapshotConnection>(std::move(now), properties_);
}

void LinuxTelephony::set_default_run_loop(RunLoop& run_loop) {
  try {
    bus_.start(run_loop, {[this](sd_bus& bus) {
                            modem_manager_reader_.start(bus);
                            ofono_reader_.start(bus);
                          },
                          [this] {
                            run_in_callback([this] { modem_manager_reader_.stop(); });
                            run_in_callback([this] { ofono_reader_.stop(); });
                          }});
  } catch (const std::system_error& error) {
    report("the radio cannot be followed: %s", error.what());
  }
}

void LinuxTelephony::add_observer(void* observer, Callback callback, std::string_view name) {
  observers_.add(observer, callback, name);
}

void LinuxTelephony::update() {
  const auto now = std::chrono::steady_clock::now();
  const ModemReading* modem = choice_.choose(modem_manager_reader_.modems(), ofono_reader_.modems(), now);
  const RadioFollower::Changes changes = follower_.update(modem, now);
  {
    const std::lock_guard lock(mutex_);
    snapshot_ = follower_.snapshot();
  }
  deadline_.disarm();
  if (const auto end = earlier(choice_.deadline(), follower_.deadline())) {
    deadline_.arm(std::chrono::ceil<std::chrono::milliseconds>(*end - now));
  }
  if (changes.sim_inserted) observers_.deliver(*this, telvo_sim_inserted);
  if (changes.sim_status) observers_.deliver(*this, telvo_sim_status_changed);
  if (changes.phone_number) observers_.deliver(*this, telvo_phone_number_changed);
}

}  // namespace corvane
