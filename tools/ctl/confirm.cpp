// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/ctl/confirm.hpp"

#include <unistd.h>
#include <cstdio>
#include <iostream>

#include "tools/ctl/commands.hpp"
#include "tools/ctl/output.hpp"

namespace tavrix::ctl {

void Confirmation::add_to(CLI::App& command) {
  command.add_flag("--yes", yes_, "do not ask; needed where no terminal is there to answer");
}

std::optional<int> Confirmation::refusal(const std::string& question) const {
  return ask(question, "this destroys something", "nothing is removed");
}

std::optional<int> Confirmation::refusal_of_change(const std::string& question) const {
  return ask(question, "this changes the map in force", "nothing is changed");
}

std::optional<int> Confirmation::ask(const std::string& question, const char* what,
                                     const char* nothing) const {
  if (yes_) return std::nullopt;
  if (isatty(STDIN_FILENO) == 0 || isatty(STDERR_FILENO) == 0) {
    complain("{}, and there is no terminal to ask on; give --yes to do it", what);
    return kFailure;
  }
  fmt::print(stderr, "{} [y/N] ", question);
  std::string answer;
  if (!std::getline(std::cin, answer)) fmt::print(stderr, "\n");
  if (answer == "y" || answer == "Y" || answer == "yes" || answer == "Yes") return std::nullopt;
  complain("{}", nothing);
  return kNo;
}

}  // namespace tavrix::ctl
