// SPDX-License-Identifier: LGPL-3.0-or-later
// tavrixctl map import and map restore: the work of the loader, by hand.

#include <unistd.h>
#include <algorithm>
#include <cstdio>

#include "tools/ctl/commands.hpp"
#include "tools/ctl/library_log.hpp"
#include "tools/ctl/map_view.hpp"
#include "tools/ctl/output.hpp"
#include "tools/mapcheck/lint.hpp"
#include "tools/mapload/load.hpp"
#include "tools/mapload/local_copy.hpp"
#include "tools/mapload/paths.hpp"
#include "tools/mapload/recovery.hpp"

namespace tavrix::ctl {
namespace {

void draw_progress(uint64_t done, uint32_t folders) {
  constexpr unsigned kWidth = 40;
  const auto filled = folders == 0 ? kWidth : static_cast<unsigned>(done * kWidth / folders);
  std::fprintf(stderr, "\r[%-*s] %lu of %u folders", static_cast<int>(kWidth),
               std::string(std::min(filled, kWidth), '=').c_str(), static_cast<unsigned long>(done),
               folders);
}

void print_refusal(const Options& options, const char* name, const mapcheck::Findings& findings) {
  if (!options.json) return print_findings(findings);
  Json json = document(name);
  json["published"] = false;
  set_findings(json, findings);
  print(json);
}

// Loads the two files, or the local copy when there are no paths, after the same recovery as in the
// loader.
int load(const Options& options, const char* size_path, const char* data_path) {
  set_debug_level(0);
  mapload::Request request{size_path, data_path, options.verbose, {}, {}};
  const bool draws = isatty(STDERR_FILENO) == 1 && !options.verbose;
  if (draws) request.progress = draw_progress;
  const Fd lock = lock_or_complain();
  if (!lock) return kFailure;
  const mapload::Recovery recovery = mapload::recover(mapload::Restore::kNo);
  tell(recovery.report);
  if (recovery.try_again) return kFailure;
  const bool restores = size_path == nullptr;
  const mapload::Loaded loaded =
      restores ? mapload::load_copy(request, mapload::look_at_copy(mapload::kLocalCopy))
               : mapload::load(request);
  tell(loaded.report);
  if (draws) std::fprintf(stderr, "\r\033[K");
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
    fmt::print("table {} is current: {} folders, {} entries, {}\n", loaded.table, loaded.folders,
               loaded.entries, human_bytes(loaded.bytes));
  }
  return kYes;
}

int import(const Options& options, const std::string& size_path, const std::string& data_path,
           bool trust) {
  if (!trust) {
    std::string error;
    const auto result = mapcheck::lint_files(size_path, data_path, error);
    if (!result) {
      complain("{}", error);
      return kFailure;
    }
    if (result->findings.errors() > 0) {
      print_refusal(options, "map-import", result->findings);
      mapload::log_refused();
      complain("not imported: {} errors; --trust skips this check", result->findings.errors());
      return kNo;
    }
  }
  return load(options, size_path.c_str(), data_path.c_str());
}

}  // namespace

void add_map_import_commands(CLI::App& map, Options& options, Action& action) {
  static std::string size_path, data_path;
  static bool trust = false;
  CLI::App* import_command = map.add_subcommand(
      "import", "Import a size file and a data file and make the map current (removes both files)");
  import_command->add_option("SIZE", size_path, "the size file")->required();
  import_command->add_option("DATA", data_path, "the data file")->required();
  import_command->add_flag("--trust", trust, "do not lint the files first");
  import_command->callback(
      [&] { action = [&options] { return import(options, size_path, data_path, trust); }; });

  map.add_subcommand("restore", "Make the local copy the current map, as after a restart")
      ->callback([&] { action = [&options] { return load(options, nullptr, nullptr); }; });
}

}  // namespace tavrix::ctl
