// SPDX-License-Identifier: LGPL-3.0-or-later
// The consent of the operator to a command that destroys something.
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

 private:
  bool yes_ = false;
};

}  // namespace tavrix::ctl
