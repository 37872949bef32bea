#pragma once

#include <memory>
#include <string>
#include <utility>

#include "platform/device.h"
#include "platform/device_properties.h"
#include "platform/simulated/profile.h"
#include "platform/simulated/simulated_telephony.h"

namespace corvane {

/// Answers from the profile's dictionary "Properties".
class SimulatedDeviceProperties final : public DeviceProperties {
 public:
  /// The profile must outlive this.
  explicit SimulatedDeviceProperties(Profile& profile) : profile_(profile) {}

  plist::Ref<plist::Value> copy_answer(const plist::String& name) override;

 private:
  Profile& profile_;
};

/// Answers from the profile's dictionary "Registry": paths to nodes, which are dictionaries of properties.
class SimulatedHardwareRegistry final : public HardwareRegistry {
 public:
  /// The profile must outlive this.
  explicit SimulatedHardwareRegistry(Profile& profile) : profile_(profile) {}

  bool has_node(std::string_view path) override;
  plist::Ref<plist::Value> copy_property(std::string_view path, std::string_view key) override;

 private:
  Profile& profile_;
};

/// Answers from the profile's dictionary "Entitlements": process ids to property lists.
class SimulatedCodeSigning final : public CodeSigning {
 public:
  /// The profile must outlive this.
  explicit SimulatedCodeSigning(Profile& profile) : profile_(profile) {}

  int copy_entitlements_blob(int32_t pid, std::string& blob) override;

 private:
  Profile& profile_;
};

/// A device that answers everything from one profile.
class SimulatedDevice final : public Device {
 public:
  /// Null, and in `fault` one line that says why, where the profile cannot be read.
  static std::unique_ptr<SimulatedDevice> open(const std::string& profile_path, std::string& fault);

  DeviceProperties& properties() override { return properties_; }
  HardwareRegistry& registry() override { return registry_; }
  Telephony& telephony() override { return telephony_; }
  CodeSigning& code_signing() override { return code_signing_; }
  DeviceStatus status() override { return {"simulated", telephony_.is_connected(), std::nullopt}; }

 private:
  explicit SimulatedDevice(std::unique_ptr<Profile> profile)
      : profile_(std::move(profile)),
        properties_(*profile_),
        registry_(*profile_),
        telephony_(*profile_),
        code_signing_(*profile_) {}

  const std::unique_ptr<Profile> profile_;
  SimulatedDeviceProperties properties_;
  SimulatedHardwareRegistry registry_;
  SimulatedTelephony telephony_;
  SimulatedCodeSigning code_signing_;
};

}  // namespace corvane
