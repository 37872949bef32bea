#include <CLI/CLI.hpp>

#include <memory>
#include <string>

#include "client/methods.h"
#include "plist/printable.h"
#include "tools/command.h"
#include "tools/commands.h"
#include "tools/image_page.h"
#include "tools/images.h"
#include "tools/plist_file.h"

namespace corvane::tools {

using plist::Ref;

namespace {

struct Options {
  Format format;
  std::string folder;
  std::string page;
  std::string property_list;
};

Ref<plist::Dictionary> ask_for_images() {
  client::Connection connection(wire::public_service);
  return reply_or([&] { return client::copy_regulatory_images(connection); }, "no regulatory images are stored");
}

void save_images(const std::string& folder) {
  std::string paths;
  for (const std::string& path : save_data_values(*ask_for_images(), folder))
    paths += plist::printable(path) + "\n";
  print(paths);
}

void store_images(const std::string& path) {
  const Ref<plist::Value> images = read_plist_input(path);
  client::Connection connection(wire::admin_service);
  reply_of_change([&] { return client::store_regulatory_images(connection, images); });
  size_t count = 0;
  for_each_data(*images, [&](const FoundData&) { ++count; });
  print("stored the images in " + plist::printable(path) + "; data values: " + std::to_string(count) + "\n");
}

void write_page(const std::string& path) {
  const std::string page = image_page(*ask_for_images());
  if (path == "-") return print(page);
  write_output(path, page, 0644);
  print("wrote " + plist::printable(path) + "\n");
}

}  // namespace

void add_image_commands(CLI::App& app) {
  auto options = std::make_shared<Options>();
  CLI::App* command = app.add_subcommand("images", "Ask the daemon for the regulatory images, or store them");
  add_format(*command, options->format);
  const CLI::Option* save =
      add_text(*command, "--save", options->folder, "Write each data value in them as a file")
          ->type_name("DIR")
          ->check(CLI::ExistingDirectory)
          ->excludes("--json", "--xml");
  const CLI::Option* page = add_text(*command, "--page", options->page,
                                     "Write a page that shows them, for a browser; - for standard output")
                                ->type_name("FILE")
                                ->excludes("--json", "--xml", "--save");
  const CLI::Option* store =
      add_text(*command, "--store", options->property_list,
               "Store the value of this property-list file as the images; - for standard input")
          ->type_name("PLIST")
          ->excludes("--json", "--xml", "--save", "--page");
  command->callback([=] {
    if (store->count() > 0) return store_images(options->property_list);
    if (save->count() > 0) return save_images(options->folder);
    if (page->count() > 0) return write_page(options->page);
    print(formatted(*ask_for_images(), options->format));
  });
}

}  // namespace corvane::tools
