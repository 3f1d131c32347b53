// SPDX-License-Identifier: LGPL-3.0-or-later
// tavrixctl map history, rollback, approve and reject: the maps that are kept, and one that is
// held.

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <optional>
#include <vector>

#include "tools/cli/completion.hpp"
#include "tools/cli/help.hpp"
#include "tools/cli/progress.hpp"
#include "tools/cluster/proposal.hpp"
#include "tools/ctl/commands.hpp"
#include "tools/ctl/confirm.hpp"
#include "tools/ctl/library_log.hpp"
#include "tools/ctl/map_for_all.hpp"
#include "tools/ctl/map_operand.hpp"
#include "tools/ctl/map_publish.hpp"
#include "tools/ctl/map_view.hpp"
#include "tools/ctl/output.hpp"
#include "tools/files/durable.hpp"
#include "tools/mapkeep/guard.hpp"
#include "tools/mapload/mark.hpp"
#include "tools/mapload/paths.hpp"
#include "tools/text/counted.hpp"
#include "tools/text/moment.hpp"

namespace tavrix::ctl {
namespace {

using mapkeep::Counts;
using mapkeep::HeldMap;
using mapkeep::KeptMap;

std::optional<Counts> known_changes(const KeptMap& map) {
  const auto text = files::read_whole(map.changes_path());
  if (!text) return std::nullopt;
  try {
    return mapkeep::counts_in(Json::parse(*text));
  } catch (const Json::exception&) {
    return std::nullopt;
  }
}

explain::Groups groups_of(const KeptMap& map) {
  return map.has_groups ? explain::groups_in(map.groups_path()) : explain::current_groups();
}

// The changes from one map to the next. Two images are compared once: the answer is stored beside
// the later one.
std::optional<Counts> changes(const KeptMap& before, const KeptMap& map) {
  if (const auto known = known_changes(map)) return known;
  const auto old_image = image_of(before);
  const auto new_image = old_image ? image_of(map) : std::nullopt;
  if (!new_image) return std::nullopt;
  mapkeep::Failure failure;
  const auto counts =
      mapkeep::compare({old_image->bytes(), new_image->bytes(), groups_of(map), {}}, {}, failure);
  if (!counts) {
    complain("kept map {} cannot be compared with the one before it: {}", map.number, failure.why);
    return std::nullopt;
  }
  static_cast<void>(files::replace(map.changes_path(), mapkeep::json_of(*counts).dump() + "\n",
                                   mapload::kPrivate));
  return counts;
}

struct History {
  std::vector<KeptMap> maps;
  std::vector<std::optional<Counts>> changes;  // of each map; nothing: not known
  std::optional<HeldMap> held;
  bool is_newest_in_force = false;
};

constexpr std::size_t kFewestDigits = 8;  // of a checksum, enough to tell two maps apart

std::string time_of(int64_t microseconds) { return text::local_time(microseconds); }

std::string held_text(const HeldMap& held) {
  return fmt::format("held since {}: {}, {}: {}", time_of(held.since),
                     text::counted(held.image.folders, "folder"),
                     text::counted(held.image.entries, "entry"), held.reason);
}

void print_text(const History& history) {
  if (history.maps.empty()) fmt::print("no map is kept\n");
  if (!history.maps.empty()) {
    fmt::print("{:>5}  {:<24} {:>10} {:>9} {:>7}  {}\n", "map", "in force since", "generation",
               "folders", "users", "how");
  }
  for (std::size_t i = 0; i < history.maps.size(); ++i) {
    const KeptMap& map = history.maps[i];
    const auto& counts = history.changes[i];
    const bool is_in_force = i + 1 == history.maps.size() && history.is_newest_in_force;
    fmt::print("{:>5}  {:<24} {:>10} {:>9} {:>7}  {}{}\n", map.number, time_of(map.since),
               map.image.generation, map.image.folders,
               counts && counts->touched ? std::to_string(*counts->touched) : "-",
               shown(mapkeep::text_of(map.origin)), is_in_force ? ", in force" : "");
  }
  if (!history.held) return;
  fmt::print(
      "{}\n\"tavrixctl map diff current held\" shows what it would change; \"map approve\" "
      "makes it current, \"map reject\" removes it; \"--checksum {}\" with either means this map "
      "and no other\n",
      held_text(*history.held), history.held->image.digest.substr(0, kFewestDigits));
}

Json json_of(const History& history) {
  Json json = document("map-history");
  json["maps"] = Json::array();
  for (std::size_t i = 0; i < history.maps.size(); ++i) {
    const KeptMap& map = history.maps[i];
    Json entry;
    entry["map"] = map.number;
    json::set_time(entry, "since", map.since / 1'000'000);
    entry["since_us"] = map.since;
    entry["in_force"] = i + 1 == history.maps.size() && history.is_newest_in_force;
    entry["how"] = map.origin.how;
    if (!map.origin.who.empty()) set_bytes(entry, "who", map.origin.who);
    if (map.origin.of) entry["of"] = *map.origin.of;
    entry["groups_kept"] = map.has_groups;
    entry["image"] = mapkeep::json_of(map.image);
    if (history.changes[i]) entry["changes"] = mapkeep::json_of(*history.changes[i]);
    json["maps"].push_back(std::move(entry));
  }
  if (history.held) {
    const HeldMap& held = *history.held;
    Json& entry = json["held"];
    json::set_time(entry, "since", held.since / 1'000'000);
    entry["since_us"] = held.since;
    set_bytes(entry, "reason", held.reason);
    entry["image"] = mapkeep::json_of(held.image);
    if (held.counts) entry["changes"] = mapkeep::json_of(*held.counts);
    set_bytes(entry, "difference", HeldMap::text_path());
    set_bytes(entry, "difference_json", HeldMap::diff_path());
  }
  return json;
}

int show_history(const Options& options) {
  History history;
  int error = 0;
  history.maps = mapkeep::kept_maps(error);
  if (error != 0) {
    complain("{}: {}", mapload::kKeptFolder, std::strerror(error));
    return kFailure;
  }
  set_debug_level(-1);
  cli::ProgressBar bar(!options.no_progress);
  for (std::size_t i = 0; i < history.maps.size(); ++i) {
    const KeptMap& map = history.maps[i];
    // The map before the oldest is gone; what is known of it stays.
    history.changes.push_back(i == 0 ? known_changes(map) : changes(history.maps[i - 1], map));
    bar.show("comparing", i + 1, history.maps.size());
  }
  bar.clear();
  history.held = mapkeep::held_map();
  const auto mark = mapload::read_mark();
  history.is_newest_in_force =
      mark && !history.maps.empty() && history.maps.back().image.digest == mark->digest;
  if (options.json) {
    print(json_of(history));
  } else {
    print_text(history);
  }
  return kYes;
}

bool is_in_force(const files::Digest& digest) {
  const auto mark = mapload::read_mark();
  return mark && mark->digest == digest && map_state().current == mark->table;
}

// On a node of a cluster the kept image goes to all nodes, for its pair is long gone.
int roll_back_all(const Options& options, const KeptMap& map) {
  const Fd lock = lock_or_complain();
  if (!lock || !image_of(map)) return kFailure;
  const auto number = put_up_for_all(
      {.size = {}, .data = {}, .groups = {}, .settings = {}, .image = map.image_path()});
  if (!number) return kFailure;
  print_put_up(options, "map-rollback", *number);
  return kYes;
}

int rollback(const Options& options, uint32_t number, const Confirmation& confirmation) {
  const auto map = kept_map(number);
  if (!map) return kFailure;
  if (is_in_force(map->image.digest)) {
    complain("map {} is in force already", number);
    return kNo;
  }
  const std::string question =
      fmt::format("Everybody's rights become those of {}, with {}. Make map {} current again?",
                  time_of(map->since), text::counted(map->image.folders, "folder"), number);
  if (const auto refusal = confirmation.refusal_of_change(question); refusal) return *refusal;
  if (is_node_of_cluster()) return roll_back_all(options, *map);
  return publish(options, {.name = "map-rollback",
                           .origin = {mapkeep::kByRollback, "", number},
                           .request = {},
                           .load =
                               [&map](const mapload::Request& request) {
                                 return mapload::load_image(request, map->image_path(),
                                                            map->image.digest);
                               },
                           .afterwards = {}});
}

// Complains and returns nothing when no map is held.
std::optional<HeldMap> held_or_complain() {
  auto held = mapkeep::held_map();
  if (held) return held;
  if (mapkeep::is_map_held()) {
    complain("{} cannot be read; \"tavrixctl map reject\" removes the held map",
             HeldMap::facts_path());
  } else {
    complain("no map is held");
  }
  return std::nullopt;
}

// The checksum of the map that somebody has looked at, or its first digits; empty stands for any
// map. Complains when it is not that of the held map.
bool is_meant(const HeldMap& held, const std::string& checksum) {
  const auto is_same = [](char wanted, char digit) {
    return std::tolower(static_cast<unsigned char>(wanted)) == digit;
  };
  const files::Digest& digest = held.image.digest;
  if (checksum.size() <= digest.size() &&
      std::equal(checksum.begin(), checksum.end(), digest.begin(), is_same)) {
    return true;
  }
  complain("another map is held: its checksum is {}; look at it first", digest);
  return false;
}

// On a node of a cluster the held pair goes to all nodes, and the daemon makes its map current. A
// death on the way leaves the map held.
int put_up(const Options& options, const HeldMap& held) {
  const Fd lock = lock_or_complain();
  if (!lock) return kFailure;
  const auto now = mapkeep::held_map();
  if (!now || now->image.digest != held.image.digest) {
    complain("another map is held by now; look at it first");
    return kFailure;
  }
  const auto came = [&held](const char* name) {
    const std::string path = held.pair + "/" + name;
    return files::exists(path) ? path : "";
  };
  const auto number = put_up_for_all({.size = held.pair + "/size.json",
                                      .data = held.pair + "/data.json",
                                      .groups = came(cluster::kGroupsName),
                                      .settings = came(cluster::kSettingsName),
                                      .image = {}});
  if (!number) {
    complain("the map is held still");
    return kFailure;
  }
  mapkeep::drop_held();
  print_put_up(options, "map-approve", *number);
  return kYes;
}

int approve(const Options& options, bool is_forced, const std::string& checksum,
            const Confirmation& confirmation) {
  const auto held = held_or_complain();
  if (!held || !is_meant(*held, checksum)) return kNo;
  if (!is_forced && !is_in_force(held->base)) {
    complain(
        "another map came into force after this one was held; look at \"tavrixctl map diff current "
        "held\", then approve it with --force");
    return kNo;
  }
  const std::string question =
      fmt::format("This map was held because {}. Make it current?", held->reason);
  if (const auto refusal = confirmation.refusal_of_change(question); refusal) return *refusal;
  if (is_node_of_cluster()) return put_up(options, *held);
  return publish(
      options, {.name = "map-approve",
                .origin = {mapkeep::kByApproval, "", {}},
                .request = {},
                .load = [&held](const mapload::Request& request) -> std::optional<mapload::Loaded> {
                  // Nobody but a holder of the lock changes the held map.
                  const auto now = mapkeep::held_map();
                  if (now && now->image.digest == held->image.digest) {
                    return mapload::load_image(request, HeldMap::image_path(), held->image.digest);
                  }
                  complain("another map is held by now; look at it first");
                  return std::nullopt;
                },
                .afterwards = [] { mapkeep::drop_held(); }});
}

int reject(const std::string& checksum, const Confirmation& confirmation) {
  if (!mapkeep::is_map_held()) {
    complain("no map is held");
    return kNo;
  }
  const auto held = mapkeep::held_map();
  const std::string question =
      fmt::format("The map in force stays, and the held one is removed{}. Remove it?",
                  held ? ", which was held because " + held->reason : "");
  if (const auto refusal = confirmation.refusal(question); refusal) return *refusal;
  const Fd lock = lock_or_complain();
  if (!lock) return kFailure;
  if (!checksum.empty()) {
    // Nobody but a holder of the lock changes the held map.
    const auto now = held_or_complain();
    if (!now || !is_meant(*now, checksum)) return kNo;
  }
  return mapkeep::drop_held() ? kYes : kNo;
}

std::string wrong_checksum(const std::string& text) {
  constexpr std::size_t kAll = 64;
  const bool is_right =
      text.size() >= kFewestDigits && text.size() <= kAll &&
      std::ranges::all_of(text, [](unsigned char digit) { return std::isxdigit(digit) != 0; });
  return is_right ? ""
                  : fmt::format("give the {} digits of the checksum, or at least the first {}",
                                kAll, kFewestDigits);
}

void add_checksum_option(CLI::App& command, std::string& checksum) {
  command
      .add_option("--checksum", checksum,
                  "only the held map with this checksum; its first eight digits are enough")
      ->type_name("SHA256")
      ->check(CLI::Validator(wrong_checksum, ""));
}

std::vector<std::string> kept_numbers() {
  std::vector<std::string> numbers;
  for (const KeptMap& map : mapkeep::kept_maps()) numbers.push_back(std::to_string(map.number));
  return numbers;
}

}  // namespace

void add_map_history_commands(CLI::App& map, Options& options, Action& action) {
  CLI::App* history_command = map.add_subcommand(
      "history", "The maps that are kept, when they came into force, and one that is held");
  history_command->callback([&] { action = [&options] { return show_history(options); }; });

  static uint32_t number = 0;
  static Confirmation confirmation;
  CLI::App* rollback_command =
      map.add_subcommand("rollback", "Make a kept map the current one again");
  auto* number_option =
      rollback_command->add_option("N", number, "its number in \"map history\"")->required();
  cli::complete_with(number_option, kept_numbers);
  confirmation.add_to(*rollback_command);
  rollback_command->callback(
      [&] { action = [&options] { return rollback(options, number, confirmation); }; });

  static bool is_forced = false;
  CLI::App* approve_command = map.add_subcommand("approve", "Make the held map current");
  approve_command->add_flag("--force", is_forced,
                            "also if another map came into force after it was held");
  static std::string checksum;
  add_checksum_option(*approve_command, checksum);
  confirmation.add_to(*approve_command);
  approve_command->callback(
      [&] { action = [&options] { return approve(options, is_forced, checksum, confirmation); }; });

  CLI::App* reject_command = map.add_subcommand("reject", "Remove the held map");
  add_checksum_option(*reject_command, checksum);
  confirmation.add_to(*reject_command);
  reject_command->callback([&] { action = [] { return reject(checksum, confirmation); }; });

  cli::add_examples(*history_command,
                    {{"tavrixctl map history", "which maps were in force, and since when?"},
                     {"tavrixctl --json map history", "the same, for a program"}});
  cli::add_examples(*rollback_command,
                    {{"tavrixctl map rollback 1", "the map with that number; asks first"},
                     {"tavrixctl --json map rollback 1 --yes", "for a program; does not ask"}});
  cli::add_examples(*approve_command,
                    {{"tavrixctl map approve", "makes it current; asks first"},
                     {"tavrixctl map approve --checksum 1a2b3c4d", "this one and no other"},
                     {"tavrixctl --json map approve --yes", "for a program; does not ask"}});
  cli::add_examples(*reject_command, {{"tavrixctl map reject", "asks first"},
                                      {"tavrixctl map reject --yes", "without a question"}});
}

}  // namespace tavrix::ctl
