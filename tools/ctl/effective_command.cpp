// SPDX-License-Identifier: LGPL-3.0-or-later
// tavrixctl effective prints the tree as a user or a group meets it.

#include <grp.h>
#include <unistd.h>
#include <cstdlib>
#include <cstring>
#include <optional>

#include "tools/cli/completion.hpp"
#include "tools/cli/help.hpp"
#include "tools/ctl/commands.hpp"
#include "tools/ctl/library_log.hpp"
#include "tools/ctl/map_view.hpp"
#include "tools/ctl/output.hpp"
#include "tools/ctl/past_map.hpp"
#include "tools/ctl/survive.hpp"
#include "tools/explain/effective.hpp"
#include "tools/explain/request.hpp"
#include "tools/explain/share_path.hpp"
#include "tools/explain/words.hpp"
#include "tools/groupmap/group_map.hpp"
#include "tools/mapbrowse/children.hpp"

namespace tavrix::ctl {
namespace {

struct Wish {
  std::string user, group;
  explain::TreeWish tree;
  bool is_page = false;
  std::optional<std::string> after;
  uint32_t limit = 200;
  std::string at;  // empty: now
};

struct Answer {
  std::vector<explain::SeenFolder> folders;
  bool in_map = true;
  bool more = false;
};

std::optional<uint32_t> gid_of(const std::string& name, const explain::Groups& groups) {
  if (const auto gid = explain::machine_group(name)) return gid;
  for (const groupmap::ReservedGroup& group : groups.map.reserved) {
    if (strcasecmp(group.name.c_str(), name.c_str()) == 0) return group.gid;
  }
  char* end = nullptr;
  const unsigned long number = std::strtoul(name.c_str(), &end, 10);
  if (!name.empty() && *end == '\0' && number < UINT32_MAX) return static_cast<uint32_t>(number);
  return std::nullopt;
}

// Complains and returns nothing when there is no such user or group.
std::optional<explain::Person> person_of(const Wish& wish, const explain::Groups& groups) {
  if (!wish.user.empty()) {
    const auto identity = explain::person_named(wish.user, groups);
    if (identity) return identity->person;
    complain_as(code::kNoUser, "there is no user \"{}\"", wish.user);
    return std::nullopt;
  }
  const auto gid = gid_of(wish.group, groups);
  const auto power_users =
      groups.power_users() ? groups.power_users() : explain::machine_group("tavrix-powerusers");
  if (gid && power_users) return explain::member_of(*gid, *power_users);
  if (gid) {
    complain("the group of the power users is not known");
  } else {
    complain_as(code::kNoGroup, "there is no group \"{}\"", wish.group);
  }
  return std::nullopt;
}

bool is_colour_wanted() {
  const char* terminal = std::getenv("TERM");
  return isatty(STDOUT_FILENO) != 0 && std::getenv("NO_COLOR") == nullptr && terminal != nullptr &&
         std::strcmp(terminal, "dumb") != 0;
}

const char* colour_of(const explain::SeenFolder& folder) {
  if (!folder.is_visible) return "\x1b[2m";
  return (folder.mask & TAVRIX_PERM_MASK_RDWR) == TAVRIX_PERM_MASK_RDWR ? "\x1b[32m" : "";
}

void print_text(const std::vector<explain::SeenFolder>& tree) {
  const bool is_coloured = is_colour_wanted();
  for (const explain::SeenFolder& folder : tree) {
    const std::string name =
        folder.level == 0 ? folder.path : folder.path.substr(folder.path.rfind('/') + 1);
    fmt::print("{}{}  {:{}}{}{}{}\n", is_coloured ? colour_of(folder) : "",
               explain::letters(folder.mask), "", folder.level * 2, shown(name),
               folder.is_visible ? "" : "  (not seen)", is_coloured ? "\x1b[0m" : "");
  }
}

Json json_of(const Wish& wish, const Answer& answer, const Image& image, const mapcheck::Walk& walk,
             const PastMap* past) {
  Json json = document("effective");
  set_bytes(json, wish.user.empty() ? "group" : "user", wish.user.empty() ? wish.group : wish.user);
  set_bytes(json, "path", wish.tree.path);
  json["in_map"] = answer.in_map;
  set_map(json, image, walk);
  json["folders"] = Json::array();
  for (const explain::SeenFolder& folder : answer.folders) {
    Json entry;
    set_bytes(entry, "path", folder.path);
    entry["mask"] = folder.mask;
    entry["rights"] = explain::letters(folder.mask);
    entry["visible"] = folder.is_visible;
    json["folders"].push_back(std::move(entry));
  }
  if (wish.is_page) json["more"] = answer.more;
  if (past != nullptr) past->add_to(json);
  return json;
}

// One page of the folders in a folder, also of those that are not met.
Answer page_for(const explain::Person& person, const mapcheck::Walk& walk, const Wish& wish) {
  const auto found = walk.find(wish.tree.path);
  if (!found.exact) return {{}, false, false};
  const auto page = mapbrowse::page_of(walk, found.folder, wish.after, wish.limit);
  std::vector<std::string_view> names;
  for (const mapbrowse::Child& child : page.children) names.push_back(child.name);
  return {explain::children_for(person, walk, found.folder, names), true, page.more};
}

int answer(const Options& options, const explain::Person& person, const Wish& wish,
           const Image& image, const mapcheck::Walk& walk, const PastMap* past) {
  Answer answer;
  if (wish.is_page) {
    answer = page_for(person, walk, wish);
  } else {
    const explain::Map map{image.bytes().data(), walk};
    answer.in_map = walk.find(wish.tree.path).exact;
    answer.folders = explain::tree_for(person, map, wish.tree);
  }
  if (options.json) {
    print(json_of(wish, answer, image, walk, past));
    return answer.folders.empty() ? kNo : kYes;
  }
  if (past != nullptr) fmt::print("{}\n", past->text());
  if (answer.folders.empty()) {
    fmt::print("nothing{}\n", answer.in_map ? "" : ": the map does not have this folder");
  } else {
    print_text(answer.folders);
  }
  return answer.folders.empty() ? kNo : kYes;
}

int effective(const Options& options, Wish wish) {
  const auto past = wish.at.empty() ? std::nullopt : map_at(wish.at);
  if (!wish.at.empty() && !past) return kFailure;
  const explain::Groups groups = past ? past->groups : explain::current_groups();
  if (groups.state != explain::Groups::State::kRead) {
    complain_as(
        code::kNoGroupMap,
        "there is no group list map that can be read; \"tavrixctl groupmap verify\" says more");
    return kFailure;
  }
  const auto person = person_of(wish, groups);
  const auto current = person && !past ? Image::to_walk("") : std::nullopt;
  if (!person || (!past && !current)) return kFailure;
  const Image& image = past ? past->image : *current;
  set_debug_level(options.verbose ? 0 : -1);
  explain::take_reserved_groups(groups);
  wish.tree.path = explain::share_path(wish.tree.path, TAVRIX_TREE);
  while (wish.tree.path.ends_with('/')) wish.tree.path.pop_back();
  return walk_through(image, [&](const mapcheck::Walk& walk) {
    return answer(options, *person, wish, image, walk, past ? &*past : nullptr);
  });
}

void add_effective_command(CLI::App& app, Options& options, Action& action) {
  static Wish wish;
  static std::string after;
  CLI::App* command = app.add_subcommand(
      "effective",
      "Print the folders of the map as a user or a group meets them (exit 1: it meets none)");
  auto* user =
      command->add_option("--user", wish.user, "a user of this machine")->type_name("USER");
  cli::complete_with(user, groupmap::known_users);
  auto* group = command->add_option(
      "--group", wish.group, "a group, for a power user with no other group and no own entry");
  user->excludes(group);
  command->add_option("PATH", wish.tree.path, "where to begin")->capture_default_str();
  auto* depth = command->add_option("--depth", wish.tree.depth, "levels below it")
                    ->check(CLI::Range(0, 1000))
                    ->capture_default_str();
  auto* only_writable = command->add_flag("--only-writable", wish.tree.only_writable,
                                          "only folders that may be read and written");
  auto* page = command->add_flag("--children", wish.is_page,
                                 "the folders in it, by name, also those that are not met");
  page->excludes(depth)->excludes(only_writable);
  auto* behind =
      command->add_option("--after", after, "only those behind this name")->type_name("NAME");
  behind->needs(page);
  command->add_option("--limit", wish.limit, "folders of a page")
      ->check(CLI::Range(1U, 100000U))
      ->capture_default_str()
      ->needs(page);
  add_at_option(*command, wish.at);
  command->footer(
      "The letters: read, write, delete, navigate (pass through), view.\n"
      "\"not seen\" is a folder on the way to one that may be reached by its name.");
  command->callback([&options, &action, user, group, behind] {
    if (user->count() + group->count() == 0) throw CLI::RequiredError("--user or --group");
    if (behind->count() > 0) wish.after = after;
    action = [&options] {
      return survive("the question", [&options] { return effective(options, wish); });
    };
  });
  cli::add_examples(
      *command,
      {{"tavrixctl effective --user anna", "the whole tree as anna meets it"},
       {"tavrixctl effective --user anna Shared/Team --depth 1", "one folder and those in it"},
       {"tavrixctl effective --group 2001 --only-writable", "what a group may change"},
       {"tavrixctl --json effective --user anna", "for a program"}});
}

const Command registered(32, add_effective_command);

}  // namespace
}  // namespace tavrix::ctl
