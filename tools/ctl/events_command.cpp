// SPDX-License-Identifier: LGPL-3.0-or-later
// tavrixctl events and audit: dump files as JSON lines.

#include <unistd.h>
#include <algorithm>
#include <csignal>
#include <filesystem>
#include <optional>
#include <set>
#include <vector>

#include "eventstore.h"
#include "tools/cli/help.hpp"
#include "tools/cluster/node.hpp"
#include "tools/ctl/commands.hpp"
#include "tools/ctl/decode_output.hpp"
#include "tools/ctl/filter_options.hpp"
#include "tools/ctl/output.hpp"
#include "tools/ctl/settings_file.hpp"
#include "tools/events/dump_folder.hpp"
#include "tools/events/dump_set.hpp"
#include "tools/settings/service_settings.hpp"

namespace tavrix::ctl {
namespace {

namespace fs = std::filesystem;

struct DecodeArguments {
  std::vector<std::string> files;
  std::string folder;
  bool stats = false;
  FilterOptions filter;
};

using events::DumpName;

// Records of several files come in order of time.
int decode_files(const std::vector<DumpName>& files, const RecordKind& kind, DecodeSink& sink) {
  events::DumpSet set(kind.time_of);
  int worst = kYes;
  std::vector<std::string> troubles;
  for (const DumpName& file : files) {
    const auto result = set.add(file);
    if (result == events::DumpSet::Result::kWhole) continue;
    troubles.push_back(set.trouble());
    worst = std::max(worst, result == events::DumpSet::Result::kDamaged ? kNo : kFailure);
  }
  for (const auto& record : set.records()) sink.put(record.payload, *record.node);
  for (const std::string& trouble : troubles) complain(std::string_view(trouble));
  return worst;
}

volatile std::sig_atomic_t is_stopped = 0;

bool is_another_folder(const std::string& folder, const events::DumpFolder& found,
                       const RecordKind& kind) {
  if (found.error) {
    complain("{}: {}", folder, found.error.message());
  } else if (found.is_another) {
    complain("{} has other files and no dump files; dump files of this kind come to {}", folder,
             kind.folder);
  }
  return found.error || found.is_another;
}

// Prints the dump files of a folder and then each new one. A dump file gets its name when it is
// whole, so every new name can be read at once.
int follow(const std::string& folder, const RecordKind& kind, DecodeSink& sink) {
  std::signal(SIGINT, [](int) { is_stopped = 1; });
  std::signal(SIGTERM, [](int) { is_stopped = 1; });
  std::set<DumpName> seen;
  for (bool is_first = true; is_stopped == 0; is_first = false) {
    events::DumpFolder found = events::look_into(folder);
    // Other files may come while dump files are away.
    if (!is_first) found.is_another = false;
    if (is_another_folder(folder, found, kind)) return kFailure;
    std::vector<DumpName> fresh;
    for (const DumpName& name : found.dumps) {
      if (!seen.contains(name)) fresh.push_back(name);
    }
    decode_files(fresh, kind, sink);
    std::fflush(stdout);
    seen = {found.dumps.begin(), found.dumps.end()};
    usleep(200 * 1000);
  }
  return kYes;
}

// The node in whose folder a file lies that was named itself; empty on a machine alone.
std::string node_of(const fs::path& file, const SettingsFile& settings) {
  const std::string node = file.parent_path().filename();
  if (settings.node.empty() || !cluster::is_node_name(node)) return {};
  const fs::path folder = file.parent_path().parent_path();
  const bool is_of_all = folder == shared_folder(settings, PARAM_STAGING_DIR) ||
                         folder == shared_folder(settings, PARAM_AUDITING_DIR);
  return is_of_all ? node : "";
}

// The operands, and the dump files of those that are folders.
std::optional<std::vector<DumpName>> operands(const std::vector<std::string>& files,
                                              const RecordKind& kind) {
  const SettingsFile settings = read_settings_file(settings::kSettingsFile);
  std::vector<DumpName> all;
  for (const std::string& file : files) {
    std::error_code none;
    if (!fs::is_directory(file, none)) {
      all.push_back({file, node_of(file, settings)});
      continue;
    }
    const events::DumpFolder found = events::look_into(file);
    if (is_another_folder(file, found, kind)) return std::nullopt;
    all.insert(all.end(), found.dumps.begin(), found.dumps.end());
  }
  return all;
}

int decode_all(const Options& options, const DecodeArguments& arguments, const RecordKind& kind) {
  const auto filter = arguments.filter.filter();
  if (!filter) return kFailure;
  const bool follows = !arguments.folder.empty();
  DecodeSink sink(kind, {.counts = arguments.stats && !follows, .names_schema = options.json},
                  *filter);
  if (follows) return follow(arguments.folder, kind, sink);
  if (arguments.files.empty()) {
    complain("give dump files, folders of them, or --follow DIR");
    return kFailure;
  }
  const auto files = operands(arguments.files, kind);
  if (!files) return kFailure;
  const int worst = decode_files(*files, kind, sink);
  sink.finish();
  return worst;
}

void add_decode(CLI::App& parent, DecodeArguments& arguments, const RecordKind& kind,
                Options& options, Action& action) {
  CLI::App* command = parent.add_subcommand(
      "decode", "Print dump files as JSON, one line per record (exit 1: a torn record)");
  command->add_option("FILE", arguments.files, "dump files, or folders of them")->type_name("FILE");
  command
      ->add_option("--follow", arguments.folder,
                   "print the dump files that come into a folder, until interrupted")
      ->type_name("DIR");
  command->add_flag("--stats", arguments.stats, "print counts instead");
  arguments.filter.add_path(*command);
  arguments.filter.add_user(*command);
  if (&kind == &kEventRecords) arguments.filter.add_operations(*command);
  arguments.filter.add_times(*command);
  command->callback([&action, &options, &arguments, &kind] {
    action = [&options, &arguments, &kind] { return decode_all(options, arguments, kind); };
  });
  const std::string name = "tavrixctl " + parent.get_name() + " decode ";
  const std::string folder = kind.folder;
  cli::add_examples(*command,
                    {{name + folder + "/pending_*", "all records that wait for the agent"},
                     {name + "--stats " + folder + "/pending_*", "how many of which kind"},
                     {name + "--user anna --since 2h " + folder + "/pending_*",
                      "those of a user, of the last two hours"},
                     {name + "--follow " + folder, "each new record, until Ctrl-C"},
                     {"tavrixctl --json " + parent.get_name() + " decode " + folder + "/pending_*",
                      "with the name of its schema in each line"}});
  cli::add_examples(parent,
                    {{name + folder + "/pending_*", "all records that wait for the agent"}});
}

void add_events_commands(CLI::App& app, Options& options, Action& action) {
  static DecodeArguments event_arguments, audit_arguments;
  CLI::App* events = app.add_subcommand("events", "Events: dump files and the staging buffer");
  events->require_subcommand(1);
  add_decode(*events, event_arguments, kEventRecords, options, action);

  CLI::App* audit = app.add_subcommand("audit", "Audit records");
  audit->require_subcommand(1);
  add_decode(*audit, audit_arguments, kAuditRecords, options, action);

  add_events_buffer_commands(*events, options, action);
}

const Command registered(50, add_events_commands);

}  // namespace
}  // namespace tavrix::ctl
