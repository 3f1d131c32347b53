// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/ctl/operation_word.hpp"

#include <vector>

#include "tools/cli/command_line.hpp"
#include "tools/cli/completion.hpp"
#include "tools/ctl/commands.hpp"
#include "tools/ctl/output.hpp"
#include "tools/explain/operations.hpp"
#include "tools/explain/request.hpp"

namespace tavrix::ctl {
namespace {

std::vector<std::string> all_operations() {
  std::vector<std::string> names = explain::words_of_people();
  for (std::string& name : explain::exact_operations()) names.push_back(std::move(name));
  return names;
}

}  // namespace

CLI::Option* add_operation(CLI::App& command, std::string& word, const std::string& more) {
  CLI::Option* option = command.add_option("OP", word, explain::list_of_operations() + more);
  cli::complete_with(option, all_operations);
  return option;
}

int refuse_operation(const std::string& word, const std::string& command) {
  const std::string meant = cli::nearest(word, all_operations());
  complain_as(code::kNoOperation, "\"{}\" is not an operation; {}", word,
              meant.empty() ? fmt::format("\"tavrixctl {} --help\" lists them", command)
                            : fmt::format("did you mean \"{}\"?", meant));
  return kFailure;
}

}  // namespace tavrix::ctl
