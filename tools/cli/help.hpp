// SPDX-License-Identifier: LGPL-3.0-or-later
// Help texts: their layout, and the examples at their ends.
#pragma once

#include <CLI/CLI.hpp>
#include <string>
#include <vector>

namespace tavrix::cli {

// A command line as an operator types it, and what it is for.
struct Example {
  std::string line, purpose;
};
void add_examples(CLI::App& command, const std::vector<Example>& examples);

// Gives the command and all commands below it the layout of this project. Call it when all of them
// are there.
void lay_out_help(CLI::App& app);

// The name of an option's value without limits and types, such as "FILE"; empty for a flag.
[[nodiscard]] std::string value_name(const CLI::Option& option);

}  // namespace tavrix::cli
