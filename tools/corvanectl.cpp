#include <CLI/CLI.hpp>

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>
#include <new>
#include <sstream>
#include <stdexcept>
#include <string>
#include <unistd.h>

#include "client/client.h"
#include "client/methods.h"
#include "client/subscription.h"
#include "plist/printable.h"
#include "plist/reader.h"
#include "plist/writer.h"
#include "tools/entitlements.h"
#include "tools/files.h"
#include "tools/images.h"
#include "tools/json.h"
#include "tools/plist_edit.h"
#include "tools/print.h"

// The operator's command.

namespace corvane::tools {

namespace {

using plist::Ref;

enum Status {
  done = 0,
  not_answered = 1,  // the daemon answered an error or nothing, or the output could not be written
  wrong_usage = 2,   // wrong arguments, or a file that cannot be used
  no_daemon = 3,
};

// Thrown to end a command with one line on standard error.
struct Failure {
  Status status;
  std::string text;
};

struct Format {
  bool json = false;
  bool xml = false;
};

Ref<plist::Value> read_plist(const std::string& path) {
  return read_plist_file(path, plist::Containers::immutable).value;
}

std::string formatted(const plist::Value& value, const Format& format) {
  if (format.json) return to_json(value) + "\n";
  if (!format.xml) return to_text(value) + "\n";
  std::string text;
  if (const Ref<plist::String> fault = plist::encode_xml(value, text)) {
    throw Failure{wrong_usage, "this has no XML form: " + std::string(fault->view())};
  }
  return text;
}

void print(const std::string& text) {
  if (!write_all(STDOUT_FILENO, text)) {
    throw Failure{not_answered, std::string("standard output: ") + std::strerror(errno)};
  }
}

// The dictionary that the daemon answered, null where it answered none.
Ref<plist::Dictionary> reply_of(const client::Answer& answer) {
  if (answer.outcome == client::Outcome::refused) throw Failure{no_daemon, "no daemon: " + answer.detail};
  if (answer.outcome != client::Outcome::answered) throw Failure{not_answered, answer.detail};
  const wire::Response& response = answer.response;
  if (response.failed) {
    throw Failure{not_answered,
                  "the daemon answered error " + std::to_string(response.code) + ": " + response.description};
  }
  return response.reply;
}

Ref<plist::Dictionary> ask_for_images() {
  client::Connection connection(wire::public_service);
  Ref<plist::Dictionary> images = reply_of(client::copy_regulatory_images(connection));
  if (!images) throw Failure{not_answered, "no regulatory images are stored"};
  return images;
}

void save_images(const std::string& folder) {
  std::string paths;
  for (const std::string& path : save_data_values(*ask_for_images(), folder)) paths += path + "\n";
  print(paths);
}

void store_images(const std::string& path) {
  client::Connection connection(wire::admin_service);
  reply_of(client::store_regulatory_images(connection, read_plist(path)));
}

// Local time, to the millisecond.
std::string time_of_day() {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  tm local{};
  localtime_r(&now.tv_sec, &local);
  char text[32];
  const size_t length = std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local);
  std::snprintf(text + length, sizeof text - length, ".%03ld", now.tv_nsec / 1000000);
  return text;
}

// Returns only by throwing: when the daemon ends, or standard output takes no more.
void show_notifications() {
  client::Subscription subscription;
  std::string detail;
  if (subscription.open(detail) != client::Outcome::answered) throw Failure{no_daemon, "no daemon: " + detail};
  wire::Notification notification;
  while (subscription.next(notification, detail) == client::Outcome::answered) {
    const std::string text = notification.missed > 0 ? "missed " + std::to_string(notification.missed)
                                                     : plist::printable(notification.name);
    print(time_of_day() + " " + text + "\n");
  }
  throw Failure{not_answered, detail};
}

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
  const Ref<plist::Dictionary> entitlements = reply_of(client::copy_entitlements(connection, pid));
  if (!entitlements) throw Failure{not_answered, "process " + std::to_string(pid) + " has no entitlements"};
  print(formatted(*entitlements, format));
}

void add_format(CLI::App& command, Format& format) {
  CLI::Option* json = command.add_flag("--json", format.json, "Print JSON");
  command.add_flag("--xml", format.xml, "Print an XML property list")->excludes(json);
}

// An argument that must not be empty.
CLI::Option* add_text(CLI::App& command, const char* name, std::string& text, const char* help) {
  const CLI::Validator not_empty([](const std::string& given) { return given.empty() ? "must not be empty" : ""; },
                                 "");
  return command.add_option(name, text, help)->check(not_empty);
}

void add_images(CLI::App& app) {
  struct Options {
    Format format;
    std::string folder;
    std::string property_list;
  };
  auto options = std::make_shared<Options>();
  CLI::App* command = app.add_subcommand("images", "Ask the daemon for the regulatory images, or store them");
  add_format(*command, options->format);
  const CLI::Option* save =
      add_text(*command, "--save", options->folder, "Write each data value in them as a file")
          ->type_name("DIR")
          ->check(CLI::ExistingDirectory)
          ->excludes("--json", "--xml");
  const CLI::Option* store = add_text(*command, "--store", options->property_list,
                                      "Store the value of this property-list file as the images")
                                 ->type_name("PLIST")
                                 ->excludes("--json", "--xml", "--save");
  command->callback([=] {
    if (store->count() > 0) return store_images(options->property_list);
    if (save->count() > 0) return save_images(options->folder);
    print(formatted(*ask_for_images(), options->format));
  });
}

void add_show(CLI::App& app) {
  struct Options {
    Format format;
    std::string path;
  };
  auto options = std::make_shared<Options>();
  CLI::App* command = app.add_subcommand("show", "Print any property-list file, binary or XML");
  add_format(*command, options->format);
  add_text(*command, "FILE", options->path, "The file")->required();
  command->callback([options] { print(formatted(*read_plist(options->path), options->format)); });
}

void add_profile(CLI::App& app) {
  struct Options {
    std::string profile;
    std::string key_path;
    std::string value;
    bool json = false;
  };
  auto options = std::make_shared<Options>();
  CLI::App* command = app.add_subcommand("profile", "Edit the profile of a simulated device");
  command->require_subcommand(1);
  add_text(*command, "--profile", options->profile, "The profile's file")
      ->type_name("FILE")
      ->envname("CORVANE_PROFILE")
      ->required();
  const auto add = [&](const char* name, const char* help) {
    CLI::App* edit = command->add_subcommand(name, help);
    edit->fallthrough();
    edit->add_option("KEY.PATH", options->key_path, "The keys that lead to the entry")->required();
    return edit;
  };
  CLI::App* set = add("set", "Set an entry; what is missing on the way to it is made");
  set->add_option("VALUE", options->value, "A string, unless --json")->required();
  set->add_flag("--json", options->json, "VALUE is JSON, as show --json prints it");
  set->callback([options] {
    const Ref<plist::Value> value =
        options->json ? from_json(options->value) : Ref<plist::Value>(plist::String::create(options->value));
    set_entry(options->profile, options->key_path, value);
  });
  add("unset", "Remove an entry")->callback([options] { unset_entry(options->profile, options->key_path); });
}

void add_entitlements(CLI::App& app) {
  struct Options {
    Format format;
    std::string executable;
    std::string pid_or_plist;
  };
  auto options = std::make_shared<Options>();
  CLI::App* command = app.add_subcommand("entitlements", "Print the entitlements of a process, or sign a file");
  add_format(*command, options->format);
  command->footer("corvanectl entitlements [--json | --xml] PID\ncorvanectl entitlements --sign FILE PLIST");
  const CLI::Option* sign =
      add_text(*command, "--sign", options->executable, "Write entitlements onto this executable")
          ->type_name("FILE")
          ->excludes("--json", "--xml");
  add_text(*command, "PID", options->pid_or_plist, "The process; with --sign FILE the property list that it gets")
      ->required();
  command->callback([=] {
    if (sign->count() > 0) return sign_executable(options->executable, options->pid_or_plist);
    show_entitlements(process_id(options->pid_or_plist), options->format);
  });
}

void add_notifications(CLI::App& app) {
  app.add_subcommand("notifications", "Print each system-wide notification as it is posted")
      ->callback(show_notifications);
}

// One line, whatever paths, arguments and the daemon's answer hold.
int fail(const std::string& text, Status status) {
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
  return unknown.empty() ? error.what() : "unknown argument: " + unknown.front();
}

int parse_and_run(CLI::App& app, int argc, char** argv) {
  try {
    app.parse(argc, argv);
    return done;
  } catch (const CLI::ParseError& error) {
    return error.get_exit_code() == 0 ? show_help(app, error) : fail(fault_of(app, error), wrong_usage);
  }
}

int run(int argc, char** argv) {
  CLI::App app{
      "Ask corvaned, and look at its files.\nThe daemon is the one below the folder CORVANE_ROOT, where "
      "that is set.",
      "corvanectl"};
  app.set_version_flag("--version", "corvanectl " CORVANE_VERSION, "Print the version and exit");
  app.require_subcommand(1);
  add_images(app);
  add_show(app);
  add_notifications(app);
  add_profile(app);
  add_entitlements(app);
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
    return fail("out of memory", not_answered);
  } catch (const std::exception& error) {
    return fail(error.what(), not_answered);
  }
}

}  // namespace

}  // namespace corvane::tools

int main(int argc, char** argv) { return corvane::tools::run(argc, argv); }
