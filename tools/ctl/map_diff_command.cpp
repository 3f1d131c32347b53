// SPDX-License-Identifier: LGPL-3.0-or-later
// tavrixctl map diff: what changed between two maps.

#include "tools/cli/completion.hpp"
#include "tools/cli/help.hpp"
#include "tools/cli/progress.hpp"
#include "tools/ctl/commands.hpp"
#include "tools/ctl/map_diff_output.hpp"
#include "tools/ctl/map_operand.hpp"
#include "tools/ctl/output.hpp"
#include "tools/ctl/survive.hpp"
#include "tools/mapdiff/difference.hpp"

namespace tavrix::ctl {
namespace {

int diff(const Options& options, const std::string& old_name, const std::string& new_name) {
  cli::ProgressBar bar(!options.no_progress);
  const auto old_image = map_named(old_name, bar);
  if (!old_image) return kFailure;
  const auto new_image = map_named(new_name, bar);
  if (!new_image) return kFailure;
  const Compared maps{*old_image, *new_image, ImageView(old_image->bytes().data()),
                      ImageView(new_image->bytes().data())};
  const mapdiff::Difference difference = mapdiff::compare(
      maps.old_map, maps.new_map,
      [&bar](uint64_t done, uint64_t folders) { bar.show("comparing", done, folders); });
  bar.clear();
  if (options.json) {
    print_difference_json(maps, difference);
  } else {
    print_difference(maps, difference);
  }
  return difference.is_empty() ? kYes : kNo;
}

}  // namespace

void add_map_diff_command(CLI::App& map, Options& options, Action& action) {
  static std::string old_name, new_name;
  CLI::App* command =
      map.add_subcommand("diff", "Show what changed between two maps (exit 1: they differ)");
  command->add_option("OLD", old_name, "\"current\", an image, or two files as SIZE,DATA")
      ->required()
      ->type_name("FILE");
  command->add_option("NEW", new_name, "likewise")->required()->type_name("FILE");
  command->callback([&] {
    action = [&options] {
      return survive("the comparison", [&options] { return diff(options, old_name, new_name); });
    };
  });
  cli::add_examples(
      *command,
      {{"tavrixctl map diff current size.json,data.json", "what would an import change?"},
       {"tavrixctl map diff /etc/tavrix/.permbe_map current",
        "is the local copy the map in force?"},
       {"tavrixctl --json map diff current size.json,data.json", "the same, for a program"}});
}

}  // namespace tavrix::ctl
