// SPDX-License-Identifier: LGPL-3.0-or-later
// The command line of a program, as people expect one: --version, "help COMMAND", a suggestion for
// a misspelt word, and the exit code 2 for every wrong usage.
#pragma once

#include <CLI/CLI.hpp>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace tavrix::cli {

constexpr int kWrongUsage = 2;

// Takes the sentence that says what is wrong with a command line.
using Refused = std::function<void(const std::string& sentence)>;

// Parses the command line. Returns the exit code when the program ends here: 0 after help or the
// version on standard output, 2 after a sentence on standard error, which `refused` gets too.
[[nodiscard]] std::optional<int> parse(CLI::App& app, int argc, char** argv,
                                       const Refused& refused = {});

// The word that was meant by a misspelt one; empty when none is near.
[[nodiscard]] std::string nearest(const std::string& word, const std::vector<std::string>& known);

}  // namespace tavrix::cli
