// SPDX-License-Identifier: LGPL-3.0-or-later
// tavrixctl check prints the verdict for a user, an operation and a path.

#include <grp.h>
#include <pwd.h>
#include <strings.h>
#include <algorithm>
#include <cctype>
#include <fstream>
#include <iterator>
#include <optional>
#include <vector>

#include "perm_enforcer.h"
#include "tavrix_getgrouplist.h"
#include "tools/cli/completion.hpp"
#include "tools/cli/help.hpp"
#include "tools/ctl/commands.hpp"
#include "tools/ctl/library_log.hpp"
#include "tools/ctl/output.hpp"
#include "tools/ctl/survive.hpp"
#include "tools/groupmap/group_map.hpp"

namespace tavrix::ctl {
namespace {

struct Operation {
  const char* name;
  e_fsop_type op;
};
// The operations that have a rule. The library ends a process that asks about another one.
constexpr Operation kOperations[] = {
    {"create", FSOP_CREATE},
    {"open-read", FSOP_OPEN_READ},
    {"open-write", FSOP_OPEN_WRITE},
    {"open-chattr", FSOP_OPEN_CHATTR},
    {"opendir", FSOP_OPENDIR},
    {"readdir", FSOP_READDIR},
    {"unlink", FSOP_UNLINK},
    {"rename-src", FSOP_RENAME_SRC},
    {"rename-dest", FSOP_RENAME_DEST},
    {"move-src", FSOP_MOVE_SRC},
    {"move-dest", FSOP_MOVE_DEST},
    {"stat", FSOP_STAT},
    {"lstat", FSOP_LSTAT},
    {"mkdir", FSOP_MKDIR},
    {"rmdir", FSOP_RMDIR},
    {"chdir", FSOP_CHDIR},
};

struct Question {
  std::string user, operation, path;
  int64_t uid = -1, gid = -1;
  std::vector<uint32_t> groups;
  bool groups_given = false;
  int64_t admins = -1, power_users = -1;
  std::string root = TAVRIX_TREE;
  bool trace = false;
  int trace_level = 4;
};

std::optional<e_fsop_type> operation_named(std::string name) {
  std::replace(name.begin(), name.end(), '_', '-');
  if (strncasecmp(name.c_str(), "fsop-", 5) == 0) name.erase(0, 5);
  for (const Operation& operation : kOperations) {
    if (strcasecmp(operation.name, name.c_str()) == 0) return operation.op;
  }
  return std::nullopt;
}

const char* operation_name(e_fsop_type op) {
  const auto* found = std::find_if(std::begin(kOperations), std::end(kOperations),
                                   [op](const Operation& operation) { return operation.op == op; });
  return found == std::end(kOperations) ? "" : found->name;
}

// Reads the group list map as server processes do; nothing when the file is missing or broken.
std::optional<groupmap::GroupMap> current_group_map() {
  std::ifstream in(TAVRIX_GROUPMAP_PATH, std::ios::binary);
  if (!in) return std::nullopt;
  return groupmap::decode(std::string{std::istreambuf_iterator<char>(in), {}});
}

std::vector<uint32_t> groups_in(const groupmap::GroupMap& map, const std::string& user) {
  for (const groupmap::User& entry : map.users) {
    if (strcasecmp(entry.name.c_str(), user.c_str()) == 0) return entry.gids;
  }
  return {};
}

// Takes the ids of the reserved groups from the map, as a connection does at its start. An id that
// the operator gave stays.
void take_reserved_groups(const groupmap::GroupMap& map, Question& question) {
  for (const groupmap::ReservedGroup& group : map.reserved) {
    if (question.admins < 0 && strcasecmp(group.name.c_str(), "tavrix-admins") == 0) {
      question.admins = group.gid;
    }
    if (question.power_users < 0 && strcasecmp(group.name.c_str(), "tavrix-powerusers") == 0) {
      question.power_users = group.gid;
    }
  }
}

std::vector<uint32_t> groups_of_machine(const std::string& user, gid_t gid) {
  int count = 65536;
  std::vector<gid_t> groups(static_cast<std::size_t>(count));
  getgrouplist(user.c_str(), gid, groups.data(), &count);
  groups.resize(static_cast<std::size_t>(std::max(count, 0)));
  return {groups.begin(), groups.end()};
}

// Fills in the ids and groups of the user. Complains and returns false when there is no such user.
bool identify(Question& question) {
  const auto map = current_group_map();
  if (map) take_reserved_groups(*map, question);
  if (!question.user.empty()) {
    const passwd* entry = getpwnam(question.user.c_str());
    if (entry == nullptr) {
      complain("there is no user \"{}\"", question.user);
      return false;
    }
    question.uid = entry->pw_uid;
    if (question.gid < 0) question.gid = entry->pw_gid;
    if (!question.groups_given) {
      question.groups =
          map ? groups_in(*map, question.user) : groups_of_machine(question.user, entry->pw_gid);
    }
  }
  if (question.gid < 0) question.gid = question.uid;
  return true;
}

gid_t gid_or_group(int64_t given, const char* group_name) {
  if (given >= 0) return static_cast<gid_t>(given);
  const group* entry = getgrnam(group_name);
  return entry == nullptr ? static_cast<gid_t>(-1) : entry->gr_gid;
}

// The path as a server process asks about it: below the tree even if the operator gave another
// root, because a decision skips the length of the tree's own name.
std::string asked_path(const Question& question) {
  std::string root = question.root;
  while (root.size() > 1 && root.back() == '/') root.pop_back();
  std::string path = question.path;
  const bool is_below = path.compare(0, root.size(), root) == 0 &&
                        (path.size() == root.size() || path[root.size()] == '/');
  if (is_below) path.erase(0, root.size());
  path.erase(0, std::min(path.find_first_not_of('/'), path.size()));
  return path.empty() ? question.root : TAVRIX_TREE "/" + path;
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

int code_of(int verdict) {
  if (verdict == TXPERMS_HAS_PERMS) return kYes;
  return verdict == TXPERMS_NO_PERM || verdict == TXPERMS_STANDARD_USER ? kNo : kFailure;
}

const char* verdict_word(int verdict) {
  switch (code_of(verdict)) {
    case kYes:
      return "granted";
    case kNo:
      return "refused";
    default:
      return "error";
  }
}

int check(const Options& options, Question question) {
  const auto op = operation_named(question.operation);
  if (!op) {
    complain("\"{}\" is not an operation; \"tavrixctl check --help\" lists them",
             question.operation);
    return kFailure;
  }
  if (!identify(question)) return kFailure;
  if (question.trace) send_library_log(LogTo::kStandardError);
  set_debug_level(question.trace ? question.trace_level : (options.verbose ? 0 : -1));
  vfs_set_admins_powerusers(gid_or_group(question.admins, "tavrix-admins"),
                            gid_or_group(question.power_users, "tavrix-powerusers"));
  process_trustees_s trustees{};
  trustees.euid = static_cast<uid_t>(question.uid);
  trustees.egid = static_cast<gid_t>(question.gid);
  trustees.num_sup_gids = static_cast<int>(question.groups.size());
  trustees.gids = question.groups.data();
  int is_nav = 0;
  const std::string path = asked_path(question);
  const int verdict =
      vfs_enforce_perms(question.root.c_str(), path.c_str(), *op, &trustees, 0, &is_nav);
  if (options.json) {
    Json json = document("check");
    json["verdict"] = verdict_word(verdict);
    json["operation"] = operation_name(*op);
    set_bytes(json, "path", path);
    json["code"] = verdict;
    json["meaning"] = verdict_name(verdict);
    json["only_to_see"] = is_nav == 1;
    json["administrator"] = trustees.admin == 1;
    json["power_user"] = trustees.poweruser == 1;
    json["uid"] = question.uid;
    json["gid"] = question.gid;
    json["groups"] = question.groups;
    print(json);
  } else {
    fmt::print("{}{}\n", verdict_name(verdict), is_nav == 1 ? " (to see, not to open)" : "");
  }
  return code_of(verdict);
}

void add_check_command(CLI::App& app, Options& options, Action& action) {
  static Question question;
  CLI::App* check_command = app.add_subcommand(
      "check",
      "Print the verdict for a user, an operation and a path (exit 0: granted, 1: refused)");
  std::string names;
  for (const Operation& operation : kOperations)
    names += std::string(names.empty() ? "" : ", ") + operation.name;
  cli::complete_with(check_command->add_option("OP", question.operation, names)->required(), [] {
    std::vector<std::string> words;
    for (const Operation& operation : kOperations) words.emplace_back(operation.name);
    return words;
  });
  check_command
      ->add_option("PATH", question.path, "relative to the share, as in Shared/Team/plan.txt")
      ->required();
  auto* user = check_command->add_option("--user", question.user, "a user of this machine")
                   ->type_name("USER");
  cli::complete_with(user, groupmap::known_users);
  auto* uid = check_command->add_option("--uid", question.uid, "any user id, instead of a user")
                  ->check(CLI::Range(0L, 4294967294L));
  user->excludes(uid);
  check_command->add_option("--gid", question.gid, "the user's primary group")
      ->check(CLI::Range(0L, 4294967294L));
  auto* groups = check_command
                     ->add_option("--groups", question.groups,
                                  "the user's other groups (default: by the group list map)")
                     ->delimiter(',')
                     ->type_name("N,...")
                     ->allow_extra_args(false);
  check_command
      ->add_option("--admins-gid", question.admins,
                   "the administrators' group (default: tavrix-admins)")
      ->check(CLI::Range(0L, 4294967294L));
  check_command
      ->add_option("--powerusers-gid", question.power_users,
                   "the power users' group (default: tavrix-powerusers)")
      ->check(CLI::Range(0L, 4294967294L));
  check_command->add_option("--root", question.root, "the share's root")
      ->type_name("DIR")
      ->capture_default_str();
  check_command->add_flag("--trace", question.trace, "show how the verdict is reached");
  check_command->add_option("--trace-level", question.trace_level, "debug level of --trace")
      ->check(CLI::Range(-1, 10))
      ->capture_default_str();
  check_command->callback([&options, &action, groups, user, uid] {
    if (user->count() + uid->count() == 0) throw CLI::RequiredError("--user or --uid");
    question.groups_given = groups->count() > 0;
    action = [&options] {
      return survive("the check", [&options] { return check(options, question); });
    };
  });
  cli::add_examples(
      *check_command,
      {{"tavrixctl check --user anna open-write Shared/Team/plan.txt", "may anna write the file?"},
       {"tavrixctl check --uid 1001 --groups 2000,2001 readdir Shared/Team --trace",
        "how is the verdict reached?"},
       {"tavrixctl --json check --user anna stat Shared", "for a program"}});
}

const Command registered(30, add_check_command);

}  // namespace
}  // namespace tavrix::ctl
