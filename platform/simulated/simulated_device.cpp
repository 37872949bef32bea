#include "platform/simulated/simulated_device.h"

#include <cerrno>

#include "plist/entitlements_blob.h"
#include "plist/writer.h"

namespace corvane {

plist::Ref<plist::Value> SimulatedDeviceProperties::copy_answer(const plist::String& name) {
  const auto profile = profile_.current();
  const auto* const properties = plist::cast<plist::Dictionary>(profile->get("Properties"));
  return properties == nullptr ? nullptr : properties->get(name.view());
}

namespace {

plist::Ref<plist::Dictionary> node_at(Profile& profile, std::string_view path) {
  const auto now = profile.current();
  const auto* const nodes = plist::cast<plist::Dictionary>(now->get("Registry"));
  return nodes == nullptr ? nullptr : plist::cast<plist::Dictionary>(nodes->get(path));
}

}  // namespace

bool SimulatedHardwareRegistry::has_node(std::string_view path) { return node_at(profile_, path) ? true : false; }

plist::Ref<plist::Value> SimulatedHardwareRegistry::copy_property(std::string_view path, std::string_view key) {
  const auto node = node_at(profile_, path);
  return node ? node->get(key) : nullptr;
}

int SimulatedCodeSigning::copy_entitlements_blob(int32_t pid, std::string& blob) {
  const auto profile = profile_.current();
  const auto* const processes = plist::cast<plist::Dictionary>(profile->get("Entitlements"));
  const plist::Value* const entitlements = processes == nullptr ? nullptr : processes->get(std::to_string(pid));
  if (entitlements == nullptr) return 0;
  std::string xml;
  if (plist::encode_xml(*entitlements, xml)) return EINVAL;
  blob = plist::make_entitlements_blob(xml);
  return 0;
}

std::unique_ptr<SimulatedDevice> SimulatedDevice::open(const std::string& profile_path, std::string& fault) {
  std::unique_ptr<Profile> profile = Profile::open(profile_path, fault);
  if (profile == nullptr) return nullptr;
  return std::unique_ptr<SimulatedDevice>(new SimulatedDevice(std::move(profile)));
}

}  // namespace corvane
