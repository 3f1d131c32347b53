// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/ctl/map_publish.hpp"

#include <unistd.h>
#include <cstdlib>

#include "tools/cli/progress.hpp"
#include "tools/ctl/library_log.hpp"
#include "tools/ctl/map_view.hpp"
#include "tools/ctl/output.hpp"
#include "tools/mapkeep/keep.hpp"
#include "tools/mapkeep/settings.hpp"
#include "tools/mapload/recovery.hpp"
#include "tools/text/counted.hpp"

namespace tavrix::ctl {
namespace {

void print_loaded(const Options& options, const std::string& name, const mapload::Loaded& loaded) {
  if (!options.json) {
    fmt::print("table {} is current: {}, {}, {}\n", loaded.table,
               text::counted(loaded.folders, "folder"), text::counted(loaded.entries, "entry"),
               human_bytes(loaded.bytes));
    return;
  }
  Json json = document(name);
  json["published"] = true;
  json["table"] = loaded.table;
  json["folders"] = loaded.folders;
  json["aces"] = loaded.entries;
  json["bytes"] = loaded.bytes;
  print(json);
}

void keep(const mapkeep::Origin& origin) {
  mapload::Report report;
  const auto settings = settings::ServiceSettings::read(settings::kSettingsFile);
  mapkeep::keep_current(mapkeep::most_kept(settings), origin, report);
  tell(report);
}

}  // namespace

void print_refusal(const Options& options, const std::string& name,
                   const mapcheck::Findings& findings) {
  if (!options.json) return print_findings(findings);
  Json json = document(name);
  json["published"] = false;
  set_findings(json, findings);
  print(json);
}

std::string operator_name() {
  const char* behind_sudo = std::getenv("SUDO_USER");
  return behind_sudo != nullptr ? behind_sudo : user_name(getuid());
}

int publish(const Options& options, Publication publication) {
  set_debug_level(0);
  cli::ProgressBar bar(!options.no_progress && !options.verbose);
  publication.request.verbose = options.verbose;
  publication.request.progress = [&bar](mapload::Phase phase, uint64_t done, uint64_t folders) {
    bar.show(phase == mapload::Phase::kImporting ? "importing" : "verifying", done, folders);
  };
  publication.request.make_room = [] {
    mapload::Report report;
    const bool has_gone = mapkeep::give_way(report);
    tell(report);
    return has_gone;
  };
  const Fd lock = lock_or_complain();
  if (!lock) return kFailure;
  const mapload::Recovery recovery = mapload::recover(mapload::Restore::kNo);
  tell(recovery.report);
  if (recovery.try_again) return kFailure;
  keep({mapkeep::kFound, "", {}});
  const auto loaded = publication.load(publication.request);
  bar.clear();
  if (!loaded) return kFailure;
  tell(loaded->report);
  if (!loaded->ok()) {
    if (loaded->findings.errors() > 0) {
      print_refusal(options, publication.name, loaded->findings);
    }
    complain("{}", loaded->error);
    return kFailure;
  }
  publication.origin.who = operator_name();
  keep(publication.origin);
  if (publication.afterwards) publication.afterwards();
  print_loaded(options, publication.name, *loaded);
  return kYes;
}

}  // namespace tavrix::ctl
