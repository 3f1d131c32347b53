// SPDX-License-Identifier: LGPL-3.0-or-later
// tavrixctl map diff: what changed between two maps.

#include <fmt/format.h>
#include <optional>
#include <vector>

#include "tools/cli/completion.hpp"
#include "tools/cli/help.hpp"
#include "tools/cli/progress.hpp"
#include "tools/ctl/commands.hpp"
#include "tools/ctl/library_log.hpp"
#include "tools/ctl/map_diff_output.hpp"
#include "tools/ctl/map_operand.hpp"
#include "tools/ctl/output.hpp"
#include "tools/ctl/survive.hpp"
#include "tools/groupmap/group_map.hpp"
#include "tools/mapdiff/difference.hpp"
#include "tools/mapdiff/people.hpp"
#include "tools/text/counted.hpp"

namespace tavrix::ctl {
namespace {

struct Wish {
  std::string old_name, new_name;
  bool wants_rights = false;
  std::string user;  // empty: every user of the group list map
};

// The people whose rights are compared. Complains and returns nothing when they are not known.
std::optional<mapdiff::Crowd> crowd_for(const Wish& wish) {
  const explain::Groups groups = explain::current_groups();
  if (groups.state != explain::Groups::State::kRead) {
    complain_as(
        code::kNoGroupMap,
        "there is no group list map that can be read; \"tavrixctl groupmap verify\" says more");
    return std::nullopt;
  }
  if (!wish.user.empty()) {
    const auto identity = explain::person_named(wish.user, groups);
    if (identity) return mapdiff::only(identity->person, groups);
    complain_as(code::kNoUser, "there is no user \"{}\"", wish.user);
    return std::nullopt;
  }
  mapdiff::People people = mapdiff::everybody(groups);
  if (people.without_account > 0) {
    warn(fmt::format("{} of the group list map {} no account and {} left out",
                     text::counted(people.without_account, "user"),
                     text::verb(people.without_account, "has", "have"),
                     text::verb(people.without_account, "is", "are")));
  }
  return std::move(people.crowd);
}

int diff(const Options& options, const Wish& wish) {
  cli::ProgressBar bar(!options.no_progress);
  const auto crowd = wish.wants_rights ? crowd_for(wish) : std::nullopt;
  if (wish.wants_rights && !crowd) return kFailure;
  const auto old_image = map_named(wish.old_name, bar);
  if (!old_image) return kFailure;
  const auto new_image = map_named(wish.new_name, bar);
  if (!new_image) return kFailure;
  const Compared maps{*old_image, *new_image, ImageView(old_image->bytes().data()),
                      ImageView(new_image->bytes().data())};
  set_debug_level(options.verbose ? 0 : -1);
  const auto show = [&bar](uint64_t done, uint64_t all) { bar.show("comparing", done, all); };
  const mapdiff::Difference difference = mapdiff::compare(maps.old_map, maps.new_map, show);
  bar.clear();
  const RightsSource rights = [&](const auto& tell) {
    mapdiff::tell_changed_rights(maps.old_map, maps.new_map, difference, *crowd, tell);
  };
  bool is_different = !difference.is_empty();
  if (options.json) {
    const bool is_any = print_difference_json(maps, difference, crowd ? &rights : nullptr);
    if (crowd) is_different = is_any;
  } else if (crowd) {
    is_different = print_rights(rights);
  } else {
    print_difference(maps, difference);
  }
  return is_different ? kNo : kYes;
}

}  // namespace

void add_map_diff_command(CLI::App& map, Options& options, Action& action) {
  static Wish wish;
  CLI::App* command =
      map.add_subcommand("diff", "Show what changed between two maps (exit 1: they differ)");
  auto* old_map =
      command->add_option("OLD", wish.old_name,
                          "\"current\", \"held\", a kept map as kept-N, an image, or two "
                          "files as SIZE,DATA");
  auto* new_map = command->add_option("NEW", wish.new_name, "likewise");
  for (CLI::Option* operand : {old_map, new_map}) {
    cli::complete_with(operand->required()->type_name("FILE"), known_operands);
  }
  auto* effective = command->add_flag("--effective", wish.wants_rights,
                                      "who gains and who loses which rights, and where");
  auto* user = command->add_option("--user", wish.user, "only this user")->type_name("USER");
  cli::complete_with(user->needs(effective), groupmap::known_users);
  command->callback([&options, &action] {
    action = [&options] {
      return survive("the comparison", [&options] { return diff(options, wish); });
    };
  });
  cli::add_examples(
      *command,
      {{"tavrixctl map diff current size.json,data.json", "what would an import change?"},
       {"tavrixctl map diff /etc/tavrix/.permbe_map current",
        "is the local copy the map in force?"},
       {"tavrixctl map diff kept-1 current", "what changed since that map was in force?"},
       {"tavrixctl map diff current size.json,data.json --effective",
        "who would gain and who would lose what, and where?"},
       {"tavrixctl --json map diff current size.json,data.json", "the same, for a program"}});
}

}  // namespace tavrix::ctl
