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
#include "tools/ctl/commands.hpp"
#include "tools/ctl/decode_output.hpp"
#include "tools/ctl/filter_options.hpp"
#include "tools/ctl/output.hpp"
#include "tools/events/dump_set.hpp"
#include "utils/staging/dump_in_flight.hpp"

namespace tavrix::ctl {
namespace {

namespace fs = std::filesystem;

struct DecodeArguments {
  std::vector<std::string> files;
  std::string folder;
  bool stats = false;
  FilterOptions filter;
};

// Records of several files come in order of time.
int decode_files(const std::vector<std::string>& files, const RecordKind& kind, DecodeSink& sink) {
  events::DumpSet set(kind.time_of);
  int worst = kYes;
  std::vector<std::string> troubles;
  for (const std::string& file : files) {
    const auto result = set.add(file);
    if (result == events::DumpSet::Result::kWhole) continue;
    troubles.push_back(set.trouble());
    worst = std::max(worst, result == events::DumpSet::Result::kDamaged ? kNo : kFailure);
  }
  for (const std::string_view payload : set.payloads()) sink.put(payload);
  for (const std::string& trouble : troubles) complain(std::string_view(trouble));
  return worst;
}

volatile std::sig_atomic_t is_stopped = 0;

bool is_dump(const std::string& name) { return name.starts_with(TAVRIX_DUMP_FILE_PREFIX); }

// Flushes write to such a file before it gets its name, those of audits to the second kind.
constexpr const char* kTempAuditPrefix = "adtemp";
bool is_unfinished_dump(const std::string& name) {
  return name.starts_with(kTempDumpPrefix) || name.starts_with(kTempAuditPrefix);
}

// A folder in which other files lie gets no dump files: it was named by mistake. An empty one may,
// because the agent takes the files away.
bool is_no_folder_of_dumps(const std::set<std::string>& names) {
  return !names.empty() && std::ranges::none_of(names, [](const std::string& name) {
    return is_dump(name) || is_unfinished_dump(name);
  });
}

std::set<std::string> names_in(const std::string& folder, std::error_code& error) {
  std::set<std::string> names;
  for (fs::directory_iterator entry(folder, error), end; !error && entry != end;
       entry.increment(error)) {
    names.insert(entry->path().filename());
  }
  return names;
}

// Prints the dump files of a folder and then each new one. A dump file gets its name when it is
// whole, so every new name can be read at once.
int follow(const std::string& folder, const RecordKind& kind, DecodeSink& sink) {
  std::signal(SIGINT, [](int) { is_stopped = 1; });
  std::signal(SIGTERM, [](int) { is_stopped = 1; });
  std::set<std::string> seen;
  for (bool is_first = true; is_stopped == 0; is_first = false) {
    std::error_code error;
    std::set<std::string> names = names_in(folder, error);
    if (error) {
      complain("{}: {}", folder, error.message());
      return kFailure;
    }
    if (is_first && is_no_folder_of_dumps(names)) {
      complain("{} has other files and no dump files; dump files of this kind come to {}", folder,
               kind.folder);
      return kFailure;
    }
    std::erase_if(names, [](const std::string& name) { return !is_dump(name); });
    std::vector<std::string> fresh;
    for (const std::string& name : names) {
      if (!seen.contains(name)) fresh.push_back(fs::path(folder) / name);
    }
    decode_files(fresh, kind, sink);
    std::fflush(stdout);
    seen = std::move(names);
    usleep(200 * 1000);
  }
  return kYes;
}

int decode_all(const Options& options, const DecodeArguments& arguments, const RecordKind& kind) {
  const auto filter = arguments.filter.filter();
  if (!filter) return kFailure;
  const bool follows = !arguments.folder.empty();
  DecodeSink sink(kind, {.counts = arguments.stats && !follows, .names_schema = options.json},
                  *filter);
  if (follows) return follow(arguments.folder, kind, sink);
  if (arguments.files.empty()) {
    complain("give dump files, or --follow DIR");
    return kFailure;
  }
  const int worst = decode_files(arguments.files, kind, sink);
  sink.finish();
  return worst;
}

void add_decode(CLI::App& parent, DecodeArguments& arguments, const RecordKind& kind,
                Options& options, Action& action) {
  CLI::App* command = parent.add_subcommand(
      "decode", "Print dump files as JSON, one line per record (exit 1: a torn record)");
  command->add_option("FILE", arguments.files, "dump files")->type_name("FILE");
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
