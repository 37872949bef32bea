#include <CLI/CLI.hpp>

#include <cerrno>
#include <clocale>
#include <cstdio>
#include <cstring>
#include <new>
#include <sstream>
#include <stdexcept>
#include <string>

#include "plist/printable.h"
#include "tools/command.h"
#include "tools/commands.h"
#include "tools/files.h"

// The operator's command.

namespace corvane::tools {

namespace {

// One line, whatever paths, arguments and the daemon's answer hold.
int fail(const std::string& text, ExitStatus status) {
  std::fprintf(stderr, "corvanectl: %s\n", plist::printable(text).c_str());
  return status;
}

int show_help(const CLI::App& app, const CLI::ParseError& help) {
  std::ostringstream text;
  app.exit(help, text, text);
  print(text.str());
  return done;
}

// The parser reports a missing subcommand before it reports the unknown argument that stands in its place.
std::string fault_of(const CLI::App& app, const CLI::ParseError& error) {
  const std::vector<std::string> unknown = app.remaining(true);
  if (!unknown.empty()) return "unknown argument: " + unknown.front();
  const std::string text = error.what();
  return text == "A subcommand is required" ? text + "; see corvanectl --help" : text;
}

int parse_and_run(CLI::App& app, int argc, char** argv) {
  try {
    app.parse(argc, argv);
    return done;
  } catch (const CLI::ParseError& error) {
    return error.get_exit_code() == 0 ? show_help(app, error) : fail(fault_of(app, error), wrong_usage);
  }
}

void add_commands(CLI::App& app) {
  app.set_version_flag("--version", "corvanectl " CORVANE_VERSION, "Print the version and exit");
  app.require_subcommand(1);
  add_device_commands(app);
  add_ark_commands(app);
  add_image_commands(app);
  add_notification_commands(app);
  add_entitlement_commands(app);
  add_file_commands(app);
}

int run(int argc, char** argv) {
  CLI::App app{
      "Ask corvaned, and look at its files.\nThe daemon is the one below the folder CORVANE_ROOT, where "
      "that is set.",
      "corvanectl"};
  add_commands(app);
  try {
    if (!open_standard_descriptors()) throw FileFault("/dev/null", std::strerror(errno));
    return parse_and_run(app, argc, argv);
  } catch (const Failure& failure) {
    return fail(failure.text, failure.status);
  } catch (const FileFault& fault) {
    return fail(fault.what(), wrong_usage);
  } catch (const std::invalid_argument& error) {
    return fail(error.what(), wrong_usage);
  } catch (const std::bad_alloc&) {
    return fail("out of memory", failed);
  } catch (const std::exception& error) {
    return fail(error.what(), failed);
  }
}

}  // namespace

}  // namespace corvane::tools

int main(int argc, char** argv) {
  std::setlocale(LC_CTYPE, "C.UTF-8");  // for the width of characters
  return corvane::tools::run(argc, argv);
}
