#pragma once

namespace CLI {
class App;
}

/// The commands of corvanectl. Each function adds a group of them to the parser, with what they do.
namespace corvane::tools {

/// ping, status, device, radio, carrier
void add_device_commands(CLI::App& app);
/// ark, with all that stands behind it
void add_ark_commands(CLI::App& app);
/// ark dump and ark restore
void add_ark_backup_commands(CLI::App& ark);
/// images
void add_image_commands(CLI::App& app);
/// notifications
void add_notification_commands(CLI::App& app);
/// ark watch
void add_ark_watch_command(CLI::App& ark);
/// show, profile
void add_file_commands(CLI::App& app);
/// entitlements
void add_entitlement_commands(CLI::App& app);

}  // namespace corvane::tools
