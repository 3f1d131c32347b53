// SPDX-License-Identifier: LGPL-3.0-or-later
// The operation on a command line: an exact name or a word that people use.
#pragma once

#include <CLI/CLI.hpp>
#include <string>

namespace tavrix::ctl {

// Adds the argument OP, whose values shells complete. `more` ends its description.
CLI::Option* add_operation(CLI::App& command, std::string& word, const std::string& more = "");

// Says that the word is no operation and what may have been meant. Returns the exit code.
int refuse_operation(const std::string& word, const std::string& command);

}  // namespace tavrix::ctl
