// SPDX-License-Identifier: LGPL-3.0-or-later
// tavrixctl map import and map restore: the work of the loader, by hand.

#include <cerrno>
#include <cstring>
#include <string>

#include "tools/cli/help.hpp"
#include "tools/cli/progress.hpp"
#include "tools/ctl/commands.hpp"
#include "tools/ctl/map_for_all.hpp"
#include "tools/ctl/map_publish.hpp"
#include "tools/ctl/map_view.hpp"
#include "tools/ctl/output.hpp"
#include "tools/files/durable.hpp"
#include "tools/mapcheck/lint.hpp"
#include "tools/mapload/load.hpp"
#include "tools/mapload/local_copy.hpp"
#include "tools/mapload/paths.hpp"
#include "tools/text/counted.hpp"

namespace tavrix::ctl {
namespace {

int import_for_all(const Options& options, const std::string& size_path,
                   const std::string& data_path, bool consume) {
  const Fd lock = lock_or_complain();
  if (!lock) return kFailure;
  const auto number = put_up_for_all(
      {.size = size_path, .data = data_path, .groups = {}, .settings = {}, .image = {}});
  if (!number) return kFailure;
  if (consume) {
    for (const std::string& path : {size_path, data_path}) {
      if (!files::remove(path)) complain("{}: {}", path, std::strerror(errno));
    }
  }
  print_put_up(options, "map-import", *number);
  return kYes;
}

int import(const Options& options, const std::string& size_path, const std::string& data_path,
           bool trust, bool consume) {
  if (!trust) {
    std::string error;
    cli::ProgressBar bar(!options.no_progress);
    const auto result = mapcheck::lint_files(
        size_path, data_path, error,
        [&bar](uint64_t done, uint64_t bytes) { bar.show("checking", done, bytes); });
    bar.clear();
    if (!result) {
      complain("{}", error);
      return kFailure;
    }
    if (result->findings.errors() > 0) {
      print_refusal(options, "map-import", result->findings);
      mapload::log_refused();
      complain("not imported: {}; --trust skips this check",
               text::counted(result->findings.errors(), "error"));
      return kNo;
    }
  }
  if (is_node_of_cluster()) return import_for_all(options, size_path, data_path, consume);
  Publication publication{.name = "map-import",
                          .origin = {mapkeep::kByImport, "", {}},
                          .request = {},
                          .load = mapload::load,
                          .afterwards = {}};
  publication.request.size_path = size_path.c_str();
  publication.request.data_path = data_path.c_str();
  publication.request.files = consume ? mapload::Files::kRemoved : mapload::Files::kKept;
  return publish(options, std::move(publication));
}

int restore(const Options& options) {
  return publish(options, {.name = "map-restore",
                           .origin = {mapkeep::kByRestore, "", {}},
                           .request = {},
                           .load =
                               [](const mapload::Request& request) {
                                 return mapload::load_copy(
                                     request, mapload::look_at_copy(mapload::kLocalCopy));
                               },
                           .afterwards = {}});
}

}  // namespace

void add_map_import_commands(CLI::App& map, Options& options, Action& action) {
  static std::string size_path, data_path;
  static bool trust = false;
  static bool consume = false;
  CLI::App* import_command = map.add_subcommand(
      "import", "Import a size file and a data file and make the map current (keeps both files)");
  import_command->add_option("SIZE", size_path, "the size file")->required()->type_name("FILE");
  import_command->add_option("DATA", data_path, "the data file")->required()->type_name("FILE");
  import_command->add_flag("--trust", trust, "do not lint the files first");
  import_command->add_flag("--consume", consume, "remove both files when their map is current");
  import_command->callback([&] {
    action = [&options] { return import(options, size_path, data_path, trust, consume); };
  });

  CLI::App* restore_command =
      map.add_subcommand("restore", "Make the local copy the current map, as after a restart");
  restore_command->callback([&] { action = [&options] { return restore(options); }; });

  cli::add_examples(
      *import_command,
      {{"tavrixctl map import size.json data.json", "make the map of the two files current"},
       {"tavrixctl map import --consume size.json data.json",
        "and remove the files, as the loader does"},
       {"tavrixctl --json map import size.json data.json", "with the result for a program"}});
  cli::add_examples(*restore_command,
                    {{"tavrixctl map restore", "bring the map back from the local copy"},
                     {"tavrixctl --json map restore", "with the result for a program"}});
}

}  // namespace tavrix::ctl
