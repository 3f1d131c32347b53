// SPDX-License-Identifier: LGPL-3.0-or-later
// The commands of tavrixctl. Each adds itself to the command line and gives the exit code when it
// runs.
#pragma once

#include <CLI/CLI.hpp>
#include <functional>

namespace tavrix::ctl {

// Exit codes.
constexpr int kYes = 0;      // yes, done, sound
constexpr int kNo = 1;       // no, refused, broken
constexpr int kFailure = 2;  // wrong usage, or the answer is not known

// The flags that every command takes.
struct Options {
  bool json = false;
  bool verbose = false;
  bool no_progress = false;
  bool needs_root = true;  // the command that the user chose may clear it
};

// The work of the command that the user chose; returns the exit code.
using Action = std::function<int()>;

// A command at the top level, such as "config". The file of a command defines one of these, and
// main() finds it: there is no list to add it to. Commands stand in the help text by their place,
// under the heading that commands.cpp has for it.
class Command {
 public:
  using Add = void (*)(CLI::App& app, Options& options, Action& action);

  Command(int place, Add add);
  static void add_all(CLI::App& app, Options& options, Action& action);
};

// The commands below "map", which are in files of their own.
void add_map_import_commands(CLI::App& map, Options& options, Action& action);
void add_map_inspect_commands(CLI::App& map, Options& options, Action& action);
void add_map_find_command(CLI::App& map, Options& options, Action& action);
void add_map_check_commands(CLI::App& map, Options& options, Action& action);
void add_map_history_commands(CLI::App& map, Options& options, Action& action);
void add_map_refused_command(CLI::App& map, Options& options, Action& action);
void add_map_diff_command(CLI::App& map, Options& options, Action& action);

// The commands below "cluster" that are in files of their own.
void add_cluster_lost_command(CLI::App& cluster, Options& options, Action& action);
void add_cluster_share_command(CLI::App& cluster, Options& options, Action& action);

// The commands below "events buffer".
void add_events_buffer_commands(CLI::App& events, Options& options, Action& action);

}  // namespace tavrix::ctl
