// SPDX-License-Identifier: LGPL-3.0-or-later
// tavrixctl map import and map restore: the work of the loader, by hand.

#include <string>

#include "tools/cli/help.hpp"
#include "tools/cli/progress.hpp"
#include "tools/ctl/commands.hpp"
#include "tools/ctl/library_log.hpp"
#include "tools/ctl/map_view.hpp"
#include "tools/ctl/output.hpp"
#include "tools/mapcheck/lint.hpp"
#include "tools/mapload/load.hpp"
#include "tools/mapload/local_copy.hpp"
#include "tools/mapload/paths.hpp"
#include "tools/mapload/recovery.hpp"
#include "tools/text/counted.hpp"

namespace tavrix::ctl {
namespace {

void print_refusal(const Options& options, const char* name, const mapcheck::Findings& findings) {
  if (!options.json) return print_findings(findings);
  Json json = document(name);
  json["published"] = false;
  set_findings(json, findings);
  print(json);
}

// Loads the two files, or the local copy when there are no paths, after the same recovery as in the
// loader.
int load(const Options& options, const char* size_path, const char* data_path,
         mapload::Files files) {
  set_debug_level(0);
  cli::ProgressBar bar(!options.no_progress && !options.verbose);
  const auto show = [&bar](mapload::Phase phase, uint64_t done, uint64_t folders) {
    bar.show(phase == mapload::Phase::kImporting ? "importing" : "verifying", done, folders);
  };
  mapload::Request request{size_path, data_path, options.verbose, show, {}, files};
  const Fd lock = lock_or_complain();
  if (!lock) return kFailure;
  const mapload::Recovery recovery = mapload::recover(mapload::Restore::kNo);
  tell(recovery.report);
  if (recovery.try_again) return kFailure;
  const bool restores = size_path == nullptr;
  const mapload::Loaded loaded =
      restores ? mapload::load_copy(request, mapload::look_at_copy(mapload::kLocalCopy))
               : mapload::load(request);
  bar.clear();
  tell(loaded.report);
  if (!loaded.ok()) {
    if (loaded.findings.errors() > 0) {
      print_refusal(options, restores ? "map-restore" : "map-import", loaded.findings);
    }
    complain("{}", loaded.error);
    return kFailure;
  }
  if (options.json) {
    Json json = document(restores ? "map-restore" : "map-import");
    json["published"] = true;
    json["table"] = loaded.table;
    json["folders"] = loaded.folders;
    json["aces"] = loaded.entries;
    json["bytes"] = loaded.bytes;
    print(json);
  } else {
    fmt::print("table {} is current: {}, {}, {}\n", loaded.table,
               text::counted(loaded.folders, "folder"), text::counted(loaded.entries, "entry"),
               human_bytes(loaded.bytes));
  }
  return kYes;
}

int import(const Options& options, const std::string& size_path, const std::string& data_path,
           bool trust, mapload::Files files) {
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
  return load(options, size_path.c_str(), data_path.c_str(), files);
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
    action = [&options] {
      const auto files = consume ? mapload::Files::kRemoved : mapload::Files::kKept;
      return import(options, size_path, data_path, trust, files);
    };
  });

  CLI::App* restore_command =
      map.add_subcommand("restore", "Make the local copy the current map, as after a restart");
  restore_command->callback([&] {
    action = [&options] { return load(options, nullptr, nullptr, mapload::Files::kKept); };
  });

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
