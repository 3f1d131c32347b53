// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/ctl/commands.hpp"

#include <map>

namespace tavrix::ctl {
namespace {

// The registry is made by its first caller, because the order in which the files of a program are
// initialised is not fixed.
std::multimap<int, Command::Add>& registry() {
  static std::multimap<int, Command::Add> commands;
  return commands;
}

const char* heading_of(int place) {
  if (place < 10) return "State";
  if (place < 20) return "Settings";
  if (place < 50) return "Permissions";
  return place < 60 ? "Events" : "More";
}

}  // namespace

Command::Command(int place, Add add) { registry().emplace(place, add); }

void Command::add_all(CLI::App& app, Options& options, Action& action) {
  std::size_t known = 0;
  for (const auto& [place, add] : registry()) {
    add(app, options, action);
    const auto commands = app.get_subcommands([](CLI::App*) { return true; });
    for (; known < commands.size(); ++known) commands[known]->group(heading_of(place));
  }
}

}  // namespace tavrix::ctl
