#include <CLI/CLI.hpp>

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>
#include <stdexcept>
#include <string>
#include <unistd.h>

#include "client/client.h"
#include "client/subscription.h"
#include "plist/reader.h"
#include "plist/writer.h"
#include "tools/entitlements.h"
#include "tools/files.h"
#include "tools/images.h"
#include "tools/json.h"
#include "tools/plist_edit.h"
#include "tools/print.h"

// The operator's command. Exit status: 0 done, 1 the daemon answered an error or nothing, 2 wrong usage,
// 3 no daemon to talk to.

namespace corvane::tools {

namespace {

using plist::Ref;

enum Status { done = 0, not_answered = 1, wrong_usage = 2, no_daemon = 3 };

/// Ends a command with one line on standard error.
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

// What the daemon answered, which may be nothing.
Ref<plist::Dictionary> answered(const client::Answer& answer) {
  if (answer.outcome == client::Outcome::refused) throw Failure{no_daemon, "no daemon: " + answer.detail};
  if (answer.outcome != client::Outcome::answered) throw Failure{not_answered, answer.detail};
  const wire::Response& response = answer.response;
  if (response.failed) {
    throw Failure{not_answered,
                  "the daemon answered error " + std::to_string(response.code) + ": " + response.description};
  }
  return response.reply;
}

void show_images(const Format& format, const std::string& save_folder) {
  client::Connection connection(wire::public_service);
  const Ref<plist::Dictionary> images = answered(client::copy_regulatory_images(connection));
  if (!images) throw Failure{not_answered, "no regulatory images are stored"};
  if (save_folder.empty()) return print(formatted(*images, format));
  std::string paths;
  for (const std::string& path : save_data_values(*images, save_folder)) paths += path + "\n";
  print(paths);
}

void store_images(const std::string& path) {
  client::Connection connection(wire::admin_service);
  answered(client::store_regulatory_images(connection, read_plist(path)));
}

// As a person reads a clock: local time, to the millisecond.
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

// Until the daemon ends, or whoever watches.
void show_notifications() {
  client::Subscription subscription;
  std::string detail;
  if (subscription.open(detail) != client::Outcome::answered) throw Failure{no_daemon, "no daemon: " + detail};
  wire::Notification notification;
  while (subscription.next(notification, detail) == client::Outcome::answered) {
    const std::string text =
        notification.missed > 0 ? "missed " + std::to_string(notification.missed) : notification.name;
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
  const Ref<plist::Dictionary> entitlements = answered(client::copy_entitlements(connection, pid));
  if (!entitlements) throw Failure{not_answered, "process " + std::to_string(pid) + " has no entitlements"};
  print(formatted(*entitlements, format));
}

void add_format(CLI::App& command, Format& format) {
  CLI::Option* json = command.add_flag("--json", format.json, "Print JSON");
  command.add_flag("--xml", format.xml, "Print an XML property list")->excludes(json);
}

void add_images(CLI::App& app) {
  struct Options {
    Format format;
    std::string save_folder;
    std::string store;
  };
  auto options = std::make_shared<Options>();
  CLI::App* command = app.add_subcommand("images", "Ask the daemon for the regulatory images, or store them");
  add_format(*command, options->format);
  command->add_option("--save", options->save_folder, "Write each data value found in them as a file")
      ->type_name("DIR")
      ->check(CLI::ExistingDirectory)
      ->excludes("--json", "--xml");
  command->add_option("--store", options->store, "Store the value of this property-list file as the images")
      ->type_name("PLIST")
      ->excludes("--json", "--xml", "--save");
  command->callback([options] {
    if (options->store.empty()) return show_images(options->format, options->save_folder);
    store_images(options->store);
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
  command->add_option("FILE", options->path, "The file")->required();
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
  command->add_option("--profile", options->profile, "The profile's file")
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
    std::string what;
  };
  auto options = std::make_shared<Options>();
  CLI::App* command = app.add_subcommand("entitlements", "Print the entitlements of a process, or sign a file");
  add_format(*command, options->format);
  command->footer("corvanectl entitlements [--json | --xml] PID\ncorvanectl entitlements --sign FILE PLIST");
  command->add_option("--sign", options->executable, "Write entitlements onto this executable")
      ->type_name("FILE")
      ->excludes("--json", "--xml");
  command->add_option("PID", options->what, "The process; after --sign FILE the property list that it gets")
      ->required();
  command->callback([options] {
    if (options->executable.empty()) return show_entitlements(process_id(options->what), options->format);
    sign_executable(options->executable, options->what);
  });
}

void add_notifications(CLI::App& app) {
  app.add_subcommand("notifications", "Print each system-wide notification as it is posted")
      ->callback(show_notifications);
}

int complain(const std::string& text, Status status) {
  std::fprintf(stderr, "corvanectl: %s\n", text.c_str());
  return status;
}

int run(int argc, char** argv) {
  CLI::App app{
      "Ask corvaned, and look at its files.\nThe daemon is the one below the folder CORVANE_ROOT, where "
      "that is set.",
      "corvanectl"};
  app.require_subcommand(1);
  add_images(app);
  add_show(app);
  add_notifications(app);
  add_profile(app);
  add_entitlements(app);
  try {
    // The parser would only complain that a command is missing.
    if (argc > 1 && argv[1][0] != '-') app.get_subcommand(argv[1]);
    app.parse(argc, argv);
    return done;
  } catch (const Failure& failure) {
    return complain(failure.text, failure.status);
  } catch (const CLI::OptionNotFound&) {
    return complain(std::string(argv[1]) + ": no such command", wrong_usage);
  } catch (const CLI::ParseError& error) {
    return error.get_exit_code() == 0 ? app.exit(error) : complain(error.what(), wrong_usage);
  } catch (const FileFault& fault) {
    return complain(fault.what(), wrong_usage);
  } catch (const std::invalid_argument& error) {
    return complain(error.what(), wrong_usage);
  } catch (const std::exception& error) {
    return complain(error.what(), not_answered);
  }
}

}  // namespace

}  // namespace corvane::tools

int main(int argc, char** argv) { return corvane::tools::run(argc, argv); }
