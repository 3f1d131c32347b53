// SPDX-License-Identifier: LGPL-3.0-or-later
// Completion of command lines. The shells' scripts ask the program itself, so that they need no
// list of commands and options:
//
//   tavrixctl --complete WORD...   the words behind the program's name; the last one, which may be
//                                  empty, is the one to complete
//
// Each line of the answer is a word, a tab and an explanation. The line ":files" or ":folders" asks
// the shell for names of files or folders.
#pragma once

#include <CLI/CLI.hpp>
#include <functional>
#include <string>
#include <vector>

namespace tavrix::cli {

constexpr const char* kCompleteOption = "--complete";

// Stands for all files, among other values.
constexpr const char* kFiles = ":files";

struct Candidate {
  std::string word, explanation;
};

// Values of an option or an argument. Without them the name of its value decides: FILE and DIR are
// left to the shell, and others have none.
using Values = std::function<std::vector<std::string>()>;
void complete_with(CLI::Option* option, Values values);

// The answer to `words`, without the program's name.
[[nodiscard]] std::vector<Candidate> completions(CLI::App& app,
                                                 const std::vector<std::string>& words);

}  // namespace tavrix::cli
