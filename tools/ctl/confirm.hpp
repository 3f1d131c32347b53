// SPDX-License-Identifier: LGPL-3.0-or-later
// The consent of the operator to a command that destroys something, or that changes much.
#pragma once

#include <CLI/CLI.hpp>
#include <optional>
#include <string>

namespace tavrix::ctl {

class Confirmation {
 public:
  // Gives the command the flag --yes.
  void add_to(CLI::App& command);

  // Asks on the terminal, unless --yes is given. Returns nothing if the command may go on, and
  // otherwise the exit code, after a sentence on standard error.
  [[nodiscard]] std::optional<int> refusal(const std::string& question) const;
  // The same for a command that changes what everybody may do.
  [[nodiscard]] std::optional<int> refusal_of_change(const std::string& question) const;

 private:
  [[nodiscard]] std::optional<int> ask(const std::string& question, const char* what,
                                       const char* nothing) const;
  bool yes_ = false;
};

}  // namespace tavrix::ctl
