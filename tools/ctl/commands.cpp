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

}  // namespace

Command::Command(int place, Add add) { registry().emplace(place, add); }

void Command::add_all(CLI::App& app, Options& options, Action& action) {
  for (const auto& [place, add] : registry()) add(app, options, action);
}

}  // namespace tavrix::ctl
