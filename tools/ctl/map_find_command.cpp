// SPDX-License-Identifier: LGPL-3.0-or-later
// tavrixctl map find: the folders of the map whose name holds a text.

#include "tools/cli/help.hpp"
#include "tools/ctl/commands.hpp"
#include "tools/ctl/map_look.hpp"
#include "tools/ctl/output.hpp"
#include "tools/mapbrowse/search.hpp"
#include "tools/text/counted.hpp"

namespace tavrix::ctl {
namespace {

struct Wish {
  std::string text, file;
  uint32_t limit = 200;
};

Json json_of(const mapcheck::Walk& walk, const mapcheck::Walk::Folder& folder) {
  const uint32_t entries = walk.entries_of(folder).size;
  Json json;
  set_bytes(json, "path", walk.path_of(folder));
  json["entries"] = entries;
  json["inherited"] = entries == 0;
  json["child_count"] = walk.children_of(folder).size;
  return json;
}

int find(const Options& options, const Wish& wish, const Image& image, const mapcheck::Walk& walk) {
  const auto matches = mapbrowse::search(walk, mapbrowse::Wanted(wish.text), wish.limit);
  Json json = document("map-find");
  set_bytes(json, "text", wish.text);
  set_map(json, image, walk);
  json["matches"] = matches.total;
  json["more"] = matches.total > matches.folders.size();
  json["folders"] = Json::array();
  for (const auto& folder : matches.folders) json["folders"].push_back(json_of(walk, folder));
  const int code = matches.total > 0 ? kYes : kNo;
  if (options.json) {
    print(json);
    return code;
  }
  for (const Json& folder : json["folders"]) {
    fmt::print("{}\n", shown(folder["path"].get<std::string>()));
  }
  if (matches.total == 0) {
    fmt::print("no folder has this in its name\n");
  } else if (json["more"].get<bool>()) {
    fmt::print("{} in all; --limit shows more\n", text::counted(matches.total, "folder"));
  }
  return code;
}

}  // namespace

void add_map_find_command(CLI::App& map, Options& options, Action& action) {
  static Wish wish;
  CLI::App* command =
      map.add_subcommand("find", "The folders whose name holds a text (exit 1: there are none)");
  command->add_option("TEXT", wish.text, "a part of the name, in any case")->required();
  command->add_option("--limit", wish.limit, "the most folders to print")
      ->check(CLI::Range(1U, 100000U))
      ->capture_default_str();
  command->add_option("--file", wish.file, "look at a local copy instead of the current table")
      ->type_name("FILE");
  command->callback([&] {
    action = [&options] {
      return look("the search in the map", wish.file,
                  [&options](const Image& image, const auto& walk) {
                    return find(options, wish, image, walk);
                  });
    };
  });
  cli::add_examples(*command, {{"tavrixctl map find plans", "where is it?"},
                               {"tavrixctl --json map find plans --limit 10", "for a program"}});
}

}  // namespace tavrix::ctl
