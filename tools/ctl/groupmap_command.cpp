// SPDX-License-Identifier: LGPL-3.0-or-later
// tavrixctl groupmap: the file that tells server processes the groups of each user.

#include <fmt/ranges.h>
#include <strings.h>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>
#include <limits>
#include <optional>
#include <stdexcept>

#include "tavrix_getgrouplist.h"
#include "tools/cli/completion.hpp"
#include "tools/cli/help.hpp"
#include "tools/ctl/commands.hpp"
#include "tools/ctl/output.hpp"
#include "tools/groupmap/group_map.hpp"
#include "tools/text/counted.hpp"

namespace tavrix::ctl {
namespace {

using groupmap::GroupMap;

std::optional<std::string> content_of(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (in) return std::string{std::istreambuf_iterator<char>(in), {}};
  const bool is_none_made = errno == ENOENT && path == TAVRIX_GROUPMAP_PATH;
  complain("{}: {}{}", path, std::strerror(errno),
           is_none_made ? "; \"tavrixctl groupmap build\" makes it" : "");
  return std::nullopt;
}

uint32_t gid_of(const Json& json) {
  constexpr uint64_t kMost = std::numeric_limits<uint32_t>::max() - 1;
  if (!json.is_number_unsigned() || json.get<uint64_t>() > kMost) {
    throw std::invalid_argument(json.dump() + " is not a group id");
  }
  return json.get<uint32_t>();
}

// A document such as {"reserved": {"tavrix-admins": 9001}, "users": {"anna": [100, 9002]}}
GroupMap from_json(const std::string& text) {
  const Json json = Json::parse(text);
  const Json reserved = json.value("reserved", Json::object());
  const Json users = json.value("users", Json::object());
  GroupMap map;
  for (const auto& [name, gid] : reserved.items()) map.reserved.push_back({name, gid_of(gid)});
  for (const auto& [name, gids] : users.items()) {
    groupmap::User user{name, {}};
    if (!gids.is_array()) throw std::invalid_argument("the groups of " + name + " are not a list");
    for (const Json& gid : gids) user.gids.push_back(gid_of(gid));
    map.users.push_back(std::move(user));
  }
  return map;
}

int build(const Options& options, const std::string& source, bool from_system,
          const std::string& target) {
  if (from_system == !source.empty()) {
    complain("give either a JSON file or --from-system");
    return kFailure;
  }
  GroupMap map;
  if (from_system) {
    map = groupmap::from_system();
  } else {
    const auto text = content_of(source);
    if (!text) return kFailure;
    try {
      map = from_json(*text);
    } catch (const std::exception& error) {
      complain("{}: {}", source, error.what());
      return kFailure;
    }
  }
  groupmap::write_file(target, groupmap::encode(map));
  if (options.json) {
    Json json = document("groupmap-build");
    set_bytes(json, "file", target);
    json["users"] = map.users.size();
    json["reserved_groups"] = map.reserved.size();
    print(json);
  } else {
    fmt::print("{}: {}, {}\n", target, text::counted(map.users.size(), "user"),
               text::counted(map.reserved.size(), "reserved group"));
  }
  return kYes;
}

int show(const Options& options, const std::string& path, const std::string& user) {
  const auto bytes = content_of(path);
  if (!bytes) return kFailure;
  const auto map = groupmap::decode(*bytes);
  if (!map) {
    complain("{}: the file is broken; \"tavrixctl groupmap verify\" shows why", path);
    return kFailure;
  }
  Json json = document("groupmap-show");
  set_bytes(json, "file", path);
  json["reserved_groups"] = Json::array();
  json["users"] = Json::array();
  bool found = user.empty();
  for (const auto& group : map->reserved) {
    Json item;
    set_bytes(item, "name", group.name);
    item["gid"] = group.gid;
    json["reserved_groups"].push_back(std::move(item));
  }
  for (const auto& entry : map->users) {
    if (!user.empty() && strcasecmp(user.c_str(), entry.name.c_str()) != 0) continue;
    if (!user.empty() && found) continue;  // readers take the first entry of a name
    found = true;
    if (!options.json) {
      fmt::print("{}: {}\n", shown(entry.name), fmt::join(entry.gids, " "));
      continue;
    }
    Json item;
    set_bytes(item, "name", entry.name);
    item["gids"] = entry.gids;
    json["users"].push_back(std::move(item));
  }
  if (options.json) {
    print(json);
  } else if (user.empty()) {
    for (const auto& group : map->reserved)
      fmt::print("reserved {}: {}\n", shown(group.name), group.gid);
  }
  if (!found) complain("{}: not in the map", user);
  return found ? kYes : kNo;
}

int verify(const Options& options, const std::string& path) {
  const auto bytes = content_of(path);
  if (!bytes) return kFailure;
  auto findings = groupmap::verify(*bytes);
  groupmap::check_checksum(path, *bytes, findings);
  if (options.json) {
    Json json = document("groupmap-verify");
    set_bytes(json, "file", path);
    set_findings(json, findings);
    print(json);
  } else {
    print_findings(findings);
    fmt::print("{}: {}\n", path, counts(findings));
  }
  return findings.errors() == 0 ? kYes : kNo;
}

void add_groupmap_commands(CLI::App& app, Options& options, Action& action) {
  CLI::App* groupmap =
      app.add_subcommand("groupmap", "The groups of users, as server processes see them");
  groupmap->require_subcommand(1);
  static std::string source, target, user, path = TAVRIX_GROUPMAP_PATH;
  static bool from_system = false;

  CLI::App* build_command = groupmap->add_subcommand("build", "Write a group list map file");
  build_command
      ->add_option("FILE", source,
                   "JSON: {\"reserved\": {NAME: GID}, \"users\": {NAME: [GID, ...]}}")
      ->type_name("FILE");
  build_command->add_flag("--from-system", from_system,
                          "take the users and groups of this machine");
  build_command->add_option("-o,--output", target, "the file to replace")
      ->required()
      ->type_name("FILE");
  build_command->callback(
      [&] { action = [&options] { return build(options, source, from_system, target); }; });

  CLI::App* show_command =
      groupmap->add_subcommand("show", "Print users and their groups (exit 1: no such user)");
  cli::complete_with(show_command->add_option("USER", user, "only this user"),
                     groupmap::known_users);
  show_command->add_option("--file", path, "the map")->capture_default_str()->type_name("FILE");
  show_command->callback([&] { action = [&options] { return show(options, path, user); }; });

  CLI::App* verify_command =
      groupmap->add_subcommand("verify", "Check every offset and sum (exit 1: the map is broken)");
  verify_command->add_option("FILE", path, "the map")->capture_default_str()->type_name("FILE");
  verify_command->callback([&] { action = [&options] { return verify(options, path); }; });

  cli::add_examples(*groupmap, {{"tavrixctl groupmap show anna", "the groups of a user"},
                                {"tavrixctl groupmap verify", "is the map in force sound?"}});
  cli::add_examples(
      *build_command,
      {{"tavrixctl groupmap build --from-system -o /etc/tavrix/groupmap_refresh",
        "from the users and groups of this machine"},
       {"tavrixctl --json groupmap build groups.json -o groupmap", "from a file, into another"}});
  cli::add_examples(*show_command, {{"tavrixctl groupmap show", "all users"},
                                    {"tavrixctl groupmap show anna", "one user"},
                                    {"tavrixctl --json groupmap show", "for a program"}});
  cli::add_examples(*verify_command, {{"tavrixctl groupmap verify", "is the map in force sound?"},
                                      {"tavrixctl --json groupmap verify", "for a program"}});
}

const Command registered(40, add_groupmap_commands);

}  // namespace
}  // namespace tavrix::ctl
