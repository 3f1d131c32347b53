// SPDX-License-Identifier: LGPL-3.0-or-later
// tavrixctl check prints the verdict for a user, an operation and a path, and the reason.

#include <optional>
#include <vector>

#include "tools/cli/completion.hpp"
#include "tools/cli/help.hpp"
#include "tools/ctl/commands.hpp"
#include "tools/ctl/library_log.hpp"
#include "tools/ctl/operation_word.hpp"
#include "tools/ctl/output.hpp"
#include "tools/ctl/past_map.hpp"
#include "tools/ctl/reserved_user.hpp"
#include "tools/ctl/survive.hpp"
#include "tools/explain/operations.hpp"
#include "tools/explain/report.hpp"
#include "tools/explain/request.hpp"
#include "tools/explain/sentences.hpp"
#include "tools/groupmap/group_map.hpp"

namespace tavrix::ctl {
namespace {

// The command line.
struct Request {
  std::string user, operation, path;
  int64_t uid = -1, gid = -1;
  std::vector<uint32_t> groups;
  bool groups_given = false;
  int64_t admins = -1, power_users = -1;
  std::string root = TAVRIX_TREE;
  std::string smb_conf = "/etc/samba/smb.conf";
  std::string at;  // empty: now
  bool explain = false;
  bool trace = false;
  int trace_level = 4;
};

// Finds the person and its groups. Complains and returns nothing when there is no such user.
std::optional<explain::Identity> identify(const Request& request, const explain::Groups& groups) {
  std::optional<explain::Identity> identity;
  if (!request.user.empty()) {
    identity = explain::person_named(request.user, groups);
    if (!identity) {
      complain_as(code::kNoUser, "there is no user \"{}\"", request.user);
      return std::nullopt;
    }
  } else {
    const auto uid = static_cast<uint32_t>(request.uid);
    identity = explain::person_with(uid, groups);
    if (!identity) {
      identity.emplace();
      identity->person.uid = identity->person.gid = uid;
    }
  }
  if (request.gid >= 0) identity->person.gid = static_cast<uint32_t>(request.gid);
  if (request.groups_given) {
    identity->person.groups = request.groups;
    identity->source = explain::GroupSource::kGiven;
  }
  identity->person.is_reserved = reserved_uids(request.smb_conf).contains(identity->person.uid);
  return identity;
}

const char* verdict_name(int verdict) {
  switch (verdict) {
    case TXPERMS_STANDARD_USER:
      return "refused: neither administrator nor power user";
    case TXPERMS_NO_PERM:
      return "refused";
    case TXPERMS_HAS_PERMS:
      return "granted";
    case TXPERMS_INVALID_ARGS:
      return "invalid arguments";
    case TXPERMS_MALLOC_ERR:
      return "out of memory";
    case TXPERMS_SYSTEM_ERR:
      return "system error";
    default:
      return "unknown";
  }
}

int code_of(const explain::Facts& facts) {
  if (facts.is_granted()) return kYes;
  return facts.is_refused() ? kNo : kFailure;
}

const char* verdict_word(const explain::Facts& facts) {
  switch (code_of(facts)) {
    case kYes:
      return "granted";
    case kNo:
      return "refused";
    default:
      return "error";
  }
}

void print_json(const explain::Report& report, const PastMap* past) {
  const explain::Facts& facts = report.answer.facts;
  const explain::Person& person = report.question.person;
  Json json = document("check");
  json["verdict"] = verdict_word(facts);
  json["operation"] = explain::name_of(report.question.op);
  set_bytes(json, "path", report.question.path);
  json["code"] = static_cast<int>(facts.verdict);
  json["meaning"] = verdict_name(facts.verdict);
  json["only_to_see"] = facts.is_only_to_see;
  json["administrator"] = facts.is_administrator;
  json["power_user"] = facts.is_power_user;
  json["uid"] = person.uid;
  json["gid"] = person.gid;
  json["groups"] = person.groups;
  explain::set_explanation(json, report);
  if (past != nullptr) past->add_to(json);
  print(json);
}

void print_text(const explain::Report& report, const Request& request, const PastMap* past) {
  const explain::Facts& facts = report.answer.facts;
  if (past != nullptr) fmt::print("{}\n", past->text());
  for (const std::string& line : explain::warnings(report)) fmt::print("{}\n", shown(line));
  if (request.explain) {
    for (const std::string& line : explain::screen(report)) fmt::print("{}\n", shown(line));
  }
  fmt::print("{}{}: {}\n",
             code_of(facts) == kFailure ? verdict_name(facts.verdict) : verdict_word(facts),
             facts.is_only_to_see ? " (to see, not to open)" : "",
             shown(explain::reason(report.question, facts)));
}

int check(const Options& options, const Request& request) {
  auto asked = explain::request_for(request.operation, request.path, request.root);
  if (!asked) return refuse_operation(request.operation, "check");
  const auto past = request.at.empty() ? std::nullopt : map_at(request.at);
  if (!request.at.empty() && !past) return kFailure;
  const explain::Groups groups = past ? past->groups : explain::current_groups();
  if (past) asked->question.map = past->image.bytes().data();
  const auto identity = identify(request, groups);
  if (!identity) return kFailure;
  asked->question.person = identity->person;

  if (request.trace) send_library_log(LogTo::kStandardError);
  set_debug_level(request.trace ? request.trace_level : (options.verbose ? 0 : -1));
  explain::take_reserved_groups(groups, request.admins, request.power_users);
  explain::Answer answer = explain::ask(asked->question);
  set_debug_level(-1);  // the questions about what would turn the verdict are nobody's to watch
  explain::Report report = explain::explain(asked->question, std::move(answer));
  report.group_map = groups.state;
  report.source = identity->source;
  report.is_about_new_file = asked->is_about_new_file;

  if (options.json) {
    print_json(report, past ? &*past : nullptr);
  } else {
    print_text(report, request, past ? &*past : nullptr);
  }
  return code_of(report.answer.facts);
}

void add_check_command(CLI::App& app, Options& options, Action& action) {
  static Request request;
  CLI::App* check_command = app.add_subcommand(
      "check",
      "Print the verdict for a user, an operation and a path (exit 0: granted, 1: refused)");
  add_operation(*check_command, request.operation)->required();
  check_command
      ->add_option("PATH", request.path,
                   "as in Shared/Team/plan.txt; \\Shared\\Team and /tavrix/Shared/Team will do too")
      ->required();
  auto* user = check_command->add_option("--user", request.user, "a user of this machine")
                   ->type_name("USER");
  cli::complete_with(user, groupmap::known_users);
  auto* uid =
      check_command->add_option("--uid", request.uid, "a user id, with or without an account")
          ->check(CLI::Range(0L, 4294967294L));
  user->excludes(uid);
  check_command->add_option("--gid", request.gid, "the user's primary group")
      ->check(CLI::Range(0L, 4294967294L));
  auto* groups = check_command
                     ->add_option("--groups", request.groups,
                                  "the user's other groups (default: by the group list map)")
                     ->delimiter(',')
                     ->type_name("N,...")
                     ->allow_extra_args(false);
  check_command
      ->add_option("--admins-gid", request.admins,
                   "the administrators' group (default: tavrix-admins)")
      ->check(CLI::Range(0L, 4294967294L));
  check_command
      ->add_option("--powerusers-gid", request.power_users,
                   "the power users' group (default: tavrix-powerusers)")
      ->check(CLI::Range(0L, 4294967294L));
  check_command->add_option("--root", request.root, "the share's root")
      ->type_name("DIR")
      ->capture_default_str();
  check_command
      ->add_option("--smb-conf", request.smb_conf,
                   "the server's settings, which name the reserved user")
      ->type_name("FILE")
      ->capture_default_str();
  add_at_option(*check_command, request.at);
  check_command->add_flag("--explain", request.explain,
                          "show the whole way to the verdict, and what would turn it");
  check_command->add_flag("--trace", request.trace, "show the library's own log lines");
  check_command->add_option("--trace-level", request.trace_level, "debug level of --trace")
      ->check(CLI::Range(-1, 10))
      ->capture_default_str();
  check_command->callback([&options, &action, groups, user, uid] {
    if (user->count() + uid->count() == 0) throw CLI::RequiredError("--user or --uid");
    request.groups_given = groups->count() > 0;
    action = [&options] {
      return survive("the check", [&options] { return check(options, request); });
    };
  });
  cli::add_examples(
      *check_command,
      {{"tavrixctl check --user anna write Shared/Team/plan.txt", "may anna write the file?"},
       {"tavrixctl check --user anna --explain write Shared/Team/plan.txt",
        "why, and what would turn the verdict?"},
       {"tavrixctl check --user anna read Shared/Team --at 'yesterday 14:00'",
        "could anna read it then?"},
       {"tavrixctl check --uid 1001 --groups 2000,2001 readdir Shared/Team --trace",
        "the library's own log of the verdict"},
       {"tavrixctl --json check --user anna stat Shared", "for a program"}});
}

const Command registered(30, add_check_command);

}  // namespace
}  // namespace tavrix::ctl
