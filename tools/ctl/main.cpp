// SPDX-License-Identifier: LGPL-3.0-or-later
// tavrixctl: shows and changes what the processes of the appliance share.

#include <unistd.h>
#include <algorithm>
#include <exception>
#include <string_view>
#include <vector>

#include "tools/cli/command_line.hpp"
#include "tools/cli/help.hpp"
#include "tools/ctl/commands.hpp"
#include "tools/ctl/library_log.hpp"
#include "tools/ctl/output.hpp"

namespace tavrix::ctl {
namespace {

int run(const Options& options, const Action& action) {
  try {
    if (options.needs_root && geteuid() != 0) {
      complain_as(code::kNotRoot, "run this as root");
      return kFailure;
    }
    if (options.verbose) send_library_log(LogTo::kStandardError);
    return action();
  } catch (const std::exception& error) {
    complain("{}", error.what());
    return kFailure;
  }
}

}  // namespace
}  // namespace tavrix::ctl

int main(int argc, char** argv) {
  using namespace tavrix::ctl;
  CLI::App app{"Settings, permission map and verdicts of the file server."};
  app.require_subcommand(1);
  app.footer(
      "Exit codes: 0 yes or done; 1 no, refused or broken; 2 wrong usage or failure.\n"
      "Run it as root; \"status\" and \"doctor\" tell others what they may see.\n"
      "\"tavrixctl help COMMAND\" says more, and so does tavrixctl(1).");
  tavrix::cli::add_examples(
      app,
      {{"tavrixctl status", "is it well, and what is to be done?"},
       {"tavrixctl check --user anna open-write Shared/Team/plan.txt", "may anna write the file?"},
       {"tavrixctl --json map info", "the map in force, for a program"}});
  Options options;
  app.add_flag("--json", options.json, "print data as JSON");
  app.add_flag("-v,--verbose", options.verbose, "show what the library prints and logs");
  app.add_flag("--no-progress", options.no_progress, "draw no progress bars on the terminal");
  app.fallthrough();

  Action action;
  Command::add_all(app, options, action);
  // The flag is looked for here because a command line that is refused leaves no options.
  const std::vector<std::string_view> words(argv + 1, argv + argc);
  if (std::ranges::find(words, "--json") != words.end()) answer_errors_in_json();
  const auto refused = [](const std::string& sentence) { note_error(code::kWrongUsage, sentence); };
  const auto ended = tavrix::cli::parse(app, argc, argv, refused);
  const int exit_code = ended ? *ended : run(options, action);
  print_error_document(exit_code);
  return exit_code;
}
