#include <CLI/CLI.hpp>

#include <memory>
#include <string>

#include "plist/printable.h"
#include "tools/command.h"
#include "tools/commands.h"
#include "tools/json.h"
#include "tools/plist_edit.h"
#include "tools/plist_file.h"

namespace corvane::tools {

using plist::Ref;

namespace {

void add_show(CLI::App& app) {
  struct Options {
    Format format;
    bool binary = false;
    std::string path;
  };
  auto options = std::make_shared<Options>();
  CLI::App* command = app.add_subcommand("show", "Print any property-list file, binary or XML");
  add_format(*command, options->format);
  command->add_flag("--binary", options->binary, "Write a binary property list to standard output")
      ->excludes("--json", "--xml");
  add_text(*command, "FILE", options->path, "The file; - for standard input")->required();
  command->callback([options] {
    const Ref<plist::Value> value = read_plist_input(options->path);
    if (options->binary) return print_binary(encode_plist(*value, plist::Encoding::binary));
    print(formatted(*value, options->format));
  });
}

struct Edit {
  std::string profile;
  std::string key_path;
  std::string value;
  bool json = false;
};

void tell(const char* what, const Edit& edit) {
  print(what + plist::printable(edit.key_path) + " in " + plist::printable(edit.profile) + "\n");
}

void set_in_profile(const Edit& edit) {
  const Ref<plist::Value> value =
      edit.json ? from_json(edit.value) : Ref<plist::Value>(plist::String::create(edit.value));
  set_entry(edit.profile, edit.key_path, value);
  tell("set ", edit);
}

void unset_in_profile(const Edit& edit) {
  tell(unset_entry(edit.profile, edit.key_path) ? "removed " : "there was no ", edit);
}

void add_profile(CLI::App& app) {
  auto options = std::make_shared<Edit>();
  CLI::App* command = app.add_subcommand("profile", "Edit the profile of a simulated device");
  command->require_subcommand(1);
  add_text(*command, "--profile", options->profile, "The profile's file")
      ->type_name("FILE")
      ->envname("CORVANE_PROFILE")
      ->required();
  const auto add = [&](const char* name, const char* help) {
    CLI::App* edit = command->add_subcommand(name, help);
    edit->fallthrough();
    must_be_utf8(edit->add_option("KEY.PATH", options->key_path, "The keys that lead to the entry"))->required();
    return edit;
  };
  CLI::App* set = add("set", "Set an entry; what is missing on the way to it is made");
  must_be_utf8(set->add_option("VALUE", options->value, "A string, unless --json"))->required();
  set->add_flag("--json", options->json, "VALUE is JSON, as show --json prints it");
  set->callback([options] { set_in_profile(*options); });
  add("unset", "Remove an entry")->callback([options] { unset_in_profile(*options); });
}

}  // namespace

void add_file_commands(CLI::App& app) {
  add_show(app);
  add_profile(app);
}

}  // namespace corvane::tools
