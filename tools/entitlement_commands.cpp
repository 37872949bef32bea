#include <CLI/CLI.hpp>

#include <charconv>
#include <memory>
#include <string>

#include "client/methods.h"
#include "plist/printable.h"
#include "tools/command.h"
#include "tools/commands.h"
#include "tools/entitlements.h"

namespace corvane::tools {

using plist::Ref;

namespace {

struct Options {
  Format format;
  std::string executable;
  std::string pid_or_plist;
};

int32_t process_id(const std::string& text) {
  int32_t pid = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), pid);
  if (error != std::errc() || end != text.data() + text.size() || pid <= 0) {
    throw Failure{wrong_usage, text + ": not a process id"};
  }
  return pid;
}

void show_entitlements(int32_t pid, const Format& format) {
  client::Connection connection(wire::admin_service);
  const Ref<plist::Dictionary> entitlements = reply_or([&] { return client::copy_entitlements(connection, pid); },
                                                       "process " + std::to_string(pid) + " has no entitlements");
  print(formatted(*entitlements, format));
}

void sign(const Options& options) {
  sign_executable(options.executable, options.pid_or_plist);
  print("wrote the entitlements in " + plist::printable(options.pid_or_plist) + " onto " +
        plist::printable(options.executable) + "\n");
}

}  // namespace

void add_entitlement_commands(CLI::App& app) {
  auto options = std::make_shared<Options>();
  CLI::App* command = app.add_subcommand("entitlements", "Print the entitlements of a process, or sign a file");
  add_format(*command, options->format);
  command->footer("corvanectl entitlements [--json | --xml] PID\ncorvanectl entitlements --sign FILE PLIST");
  const CLI::Option* executable =
      add_text(*command, "--sign", options->executable, "Write entitlements onto this executable")
          ->type_name("FILE")
          ->excludes("--json", "--xml");
  add_text(*command, "PID|PLIST", options->pid_or_plist,
           "The process; with --sign FILE the property list that it gets")
      ->required();
  command->callback([=] {
    if (executable->count() > 0) return sign(*options);
    show_entitlements(process_id(options->pid_or_plist), options->format);
  });
}

}  // namespace corvane::tools
