// SPDX-License-Identifier: LGPL-3.0-or-later
// Programs on a terminal of their own.
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace tavrix::test {

struct TerminalOutcome {
  int exit_code = -1;
  std::string shown;  // everything that the program wrote to the terminal
};

// Runs a program with a new terminal as its input and outputs. Each pair is typed when its first
// text has been shown: {"[y/N]", "y\n"}. A program that does not end in half a minute is killed.
TerminalOutcome run_on_terminal(
    const std::vector<std::string>& argv,
    const std::vector<std::pair<std::string, std::string>>& answers = {},
    const std::vector<std::pair<std::string, std::string>>& environment = {{"TERM", "xterm"}});

}  // namespace tavrix::test
