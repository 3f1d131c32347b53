// SPDX-License-Identifier: LGPL-3.0-or-later
// The commands of tavrixctl. Each adds itself to the command line; running it gives the exit code.
#pragma once

#include <CLI/CLI.hpp>
#include <functional>

namespace tavrix::ctl {

// Exit codes.
constexpr int kYes = 0;      // yes, done, sound
constexpr int kNo = 1;       // no, refused, broken
constexpr int kFailure = 2;  // wrong usage, or it could not be found out

// What every command may look at.
struct Options {
  bool json = false;
  bool verbose = false;
};

// The chosen command's work.
using Action = std::function<int()>;

void add_config_commands(CLI::App& app, Options& options, Action& action);
void add_map_commands(CLI::App& app, Options& options, Action& action);
void add_check_command(CLI::App& app, Options& options, Action& action);
void add_groupmap_commands(CLI::App& app, Options& options, Action& action);
void add_events_commands(CLI::App& app, Options& options, Action& action);
void add_patterns_commands(CLI::App& app, Options& options, Action& action);

// The parts of "map".
void add_map_import_commands(CLI::App& map, Options& options, Action& action);
void add_map_inspect_commands(CLI::App& map, Options& options, Action& action);
void add_map_check_commands(CLI::App& map, Options& options, Action& action);

}  // namespace tavrix::ctl
