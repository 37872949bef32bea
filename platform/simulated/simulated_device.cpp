#include "platform/simulated/simulated_device.h"

namespace corvane {

plist::Ref<plist::Value> SimulatedDeviceProperties::copy_answer(const plist::String& name) {
  const auto profile = profile_.current();
  const auto* const properties = plist::cast<plist::Dictionary>(profile->get("Properties"));
  return properties == nullptr ? nullptr : properties->get(name.view());
}

std::unique_ptr<SimulatedDevice> SimulatedDevice::open(const std::string& profile_path, std::string& fault) {
  std::unique_ptr<Profile> profile = Profile::open(profile_path, fault);
  if (profile == nullptr) return nullptr;
  return std::unique_ptr<SimulatedDevice>(new SimulatedDevice(std::move(profile)));
}

}  // namespace corvane
