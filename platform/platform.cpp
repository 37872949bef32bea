#include "platform/platform.h"

#include <atomic>

namespace corvane {

namespace {

std::atomic<Platform*> installed_platform{nullptr};

}  // namespace

Platform& platform() { return *installed_platform.load(std::memory_order_acquire); }

void install_platform(Platform* installed) { installed_platform.store(installed, std::memory_order_release); }

std::string system_path(std::string_view absolute_path) { return platform().root() + std::string(absolute_path); }

}  // namespace corvane
