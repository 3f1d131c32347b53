// SPDX-License-Identifier: LGPL-3.0-or-later
// tavrixctl who prints the users who may perform an operation on a path.

#include <utility>

#include "tools/cli/help.hpp"
#include "tools/ctl/commands.hpp"
#include "tools/ctl/library_log.hpp"
#include "tools/ctl/operation_word.hpp"
#include "tools/ctl/output.hpp"
#include "tools/ctl/past_map.hpp"
#include "tools/ctl/reserved_user.hpp"
#include "tools/ctl/survive.hpp"
#include "tools/explain/operations.hpp"
#include "tools/explain/request.hpp"
#include "tools/explain/sentences.hpp"
#include "tools/explain/who.hpp"
#include "tools/text/counted.hpp"

namespace tavrix::ctl {
namespace {

struct Words {
  std::string operation;
  std::string path;
  std::string smb_conf = "/etc/samba/smb.conf";
  bool with_refused = false;
  std::string at;  // empty: now
};

void print_text(const explain::Everybody& everybody, const Words& words) {
  const std::size_t users = everybody.granted.size() + everybody.refused.size();
  fmt::print("{} {}: {} of {} may\n", explain::name_of(everybody.question.op),
             shown(everybody.question.path), everybody.granted.size(),
             text::counted(users, "user"));
  for (const auto& [through, names] : explain::folded(everybody)) {
    fmt::print("  {}: {}\n", shown(through), shown(explain::joined(names)));
  }
  if (!everybody.without_account.empty()) {
    fmt::print("without an account on this machine: {}\n",
               shown(explain::joined(everybody.without_account)));
  }
  if (!words.with_refused || everybody.refused.empty()) return;
  fmt::print("refused:\n");
  for (const explain::Asker& asker : everybody.refused) {
    explain::Question question = everybody.question;
    question.person = asker.person;
    fmt::print("  {}\n", shown(explain::reason(question, asker.facts)));
  }
}

int who(const Options& options, const Words& words) {
  auto asked = explain::request_for(words.operation, words.path, TAVRIX_TREE);
  if (!asked) return refuse_operation(words.operation, "who");
  const auto past = words.at.empty() ? std::nullopt : map_at(words.at);
  if (!words.at.empty() && !past) return kFailure;
  const explain::Groups groups = past ? past->groups : explain::current_groups();
  if (past) asked->question.map = past->image.bytes().data();
  if (groups.state != explain::Groups::State::kRead) {
    complain_as(
        code::kNoGroupMap,
        "there is no group list map that can be read; \"tavrixctl groupmap verify\" says more");
    return kFailure;
  }
  set_debug_level(options.verbose ? 0 : -1);
  explain::take_reserved_groups(groups);
  const explain::Everybody everybody =
      explain::ask_everybody(asked->question, groups, reserved_uids(words.smb_conf));
  if (!everybody.failed.empty()) {
    const explain::Asker& first = everybody.failed.front();
    explain::Question question = asked->question;
    question.person = first.person;
    complain("{}", explain::reason(question, first.facts));
    return kFailure;
  }
  if (options.json) {
    Json json = document("who");
    json["operation"] = explain::name_of(asked->question.op);
    set_bytes(json, "path", asked->question.path);
    explain::set_everybody(json, everybody, words.with_refused);
    if (past) past->add_to(json);
    print(json);
  } else {
    if (past) fmt::print("{}\n", past->text());
    print_text(everybody, words);
  }
  return kYes;
}

void add_who_command(CLI::App& app, Options& options, Action& action) {
  static Words words;
  CLI::App* command = app.add_subcommand(
      "who", "Print the users of the group list map who may perform an operation on a path");
  // The operation comes first and may be left out: a single word is the path.
  auto* first = add_operation(*command, words.operation, " (default: read)");
  auto* second = command->add_option(
      "PATH", words.path,
      "as in Shared/Team/plan.txt; \\Shared\\Team and /tavrix/Shared/Team will do too");
  command
      ->add_option("--smb-conf", words.smb_conf,
                   "the server's settings, which name the reserved user")
      ->type_name("FILE")
      ->capture_default_str();
  add_at_option(*command, words.at);
  command->add_flag("--refused", words.with_refused, "print the others too, and why");
  command->callback([&options, &action, first, second] {
    if (first->count() == 0) throw CLI::RequiredError("PATH");
    if (second->count() == 0) words.path = std::exchange(words.operation, "read");
    action = [&options] {
      return survive("the question", [&options] { return who(options, words); });
    };
  });
  cli::add_examples(*command, {{"tavrixctl who Shared/Team", "who may read the folder?"},
                               {"tavrixctl who delete Shared/Team/plan.txt --refused",
                                "who may delete the file, and why may the others not?"},
                               {"tavrixctl who Shared/Team --at -2h", "who could, two hours ago?"},
                               {"tavrixctl --json who write Shared/Team", "for a program"}});
}

const Command registered(31, add_who_command);

}  // namespace
}  // namespace tavrix::ctl
