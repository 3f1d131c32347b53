// SPDX-License-Identifier: LGPL-3.0-or-later
// tavrixctl map info, map tree and map acl: the content of an image.

#include <algorithm>
#include <cstring>
#include <optional>
#include <utility>
#include <vector>

#include "mkperms_shm.h"
#include "tools/cli/help.hpp"
#include "tools/ctl/commands.hpp"
#include "tools/ctl/map_look.hpp"
#include "tools/ctl/output.hpp"
#include "tools/ctl/tree_output.hpp"
#include "tools/explain/share_path.hpp"
#include "tools/mapbrowse/children.hpp"
#include "tools/mapcheck/walk.hpp"
#include "tools/text/counted.hpp"

namespace tavrix::ctl {
namespace {

using Folder = mapcheck::Walk::Folder;

Json json_of_table(const TableState& table) {
  Json json;
  json["key"] = table.key;
  json["exists"] = table.shmid != -1;
  if (table.shmid == -1) return json;
  json["bytes"] = table.bytes;
  json["attached"] = table.readers;
  json["creator"] = table.creator;
  return json;
}

int info(const Options& options, const std::string& path, const Image& image,
         const mapcheck::Walk& walk) {
  const MapState state = map_state();
  Json json = document("map-info");
  json["image"] = image.origin();
  json["bytes"] = image.bytes().size();
  json["map"] = json_of_header(walk.header());
  if (image.table_id()) json["table_id"] = *image.table_id();
  if (path.empty()) {
    json["current"] = state.current;
    json["initialized"] = state.initialized == 1;
    json["tables"] = {json_of_table(state.tables[0]), json_of_table(state.tables[1])};
  }
  if (options.json) {
    print(json);
    return kYes;
  }
  const Json& map = json["map"];
  fmt::print("{}: {} in {}\n", image.origin(), human_bytes(image.bytes().size()),
             path.empty() ? "shared memory" : "a file");
  fmt::print("map \"{}\", version \"{}\", generation {}, time {}\n",
             shown(map["name"].get<std::string>()), shown(map["version"].get<std::string>()),
             map["generation"].get<uint32_t>(), map["timestamp"].get<int64_t>());
  fmt::print("{}, {}\n", text::counted(map["folders"].get<uint32_t>(), "folder"),
             text::counted(map["aces"].get<uint32_t>(), "entry"));
  if (!path.empty()) return kYes;
  for (int index = 0; index < 2; ++index) {
    const TableState& table = state.tables[index];
    fmt::print("table {} (key 0x{:x}): {}{}\n", index, table.key,
               table.shmid == -1
                   ? "none"
                   : fmt::format("{}, {} attached, made by process {}", human_bytes(table.bytes),
                                 table.readers, table.creator),
               index == state.current ? ", current" : "");
  }
  return kYes;
}

// Prints or adds one entry.
void show_entry(const beace_s& ace, bool as_json, Json& entries) {
  const bool is_user = ace.idtype == IDTYPE_UID;
  const std::string name = is_user ? user_name(ace.id) : group_name(ace.id);
  if (!as_json) {
    fmt::print("  {:<5} {:<10} {:<20} {:>3}  {}\n", is_user ? "user" : "group", uint32_t{ace.id},
               name.empty() ? "-" : name, uint16_t{ace.perm_mask}, rights(ace.perm_mask));
    return;
  }
  Json entry;
  entry["type"] = is_user ? "user" : "group";
  entry["id"] = uint32_t{ace.id};
  if (!name.empty()) set_bytes(entry, "name", name);
  entry["mask"] = uint16_t{ace.perm_mask};
  entry["rights"] = rights(ace.perm_mask);
  entries.push_back(std::move(entry));
}

int acl(const Options& options, const std::string& given, const Image& image,
        const mapcheck::Walk& walk) {
  const auto found = walk.find(explain::share_path(given, TAVRIX_TREE));
  const std::string folder = walk.path_of(found.folder);
  const auto source = walk.source_of(found.folder);
  const std::string from = walk.path_of(source);
  const bool is_inherited = !found.exact || source.offset != found.folder.offset;
  Json json = document("map-acl");
  set_bytes(json, "path", given);
  json["in_map"] = found.exact;
  set_bytes(json, "folder", folder);
  json["inherited"] = is_inherited;
  set_bytes(json, "from", from);
  set_map(json, image, walk);
  json["entries"] = Json::array();
  if (!options.json) {
    if (!found.exact) {
      fmt::print("{}: not in the map; {} stands in for it\n", shown(given), shown(folder));
    }
    fmt::print("{}: {} {}\n", shown(given), is_inherited ? "inherited from" : "explicit at",
               shown(from));
  }
  // The decision reads the entries from the last to the first.
  const auto entries = walk.entries_of(source);
  for (uint32_t left = entries.size; left > 0; --left) {
    show_entry(entries[left - 1], options.json, json["entries"]);
  }
  if (options.json) print(json);
  return kYes;
}

// Readers of JSON refuse deeper documents.
constexpr int kMostJsonLevels = 1000;

// The folders below one, the first child first. The way down is kept on the heap, because a map may
// be deeper than the stack allows.
class Tree {
 public:
  Tree(const mapcheck::Walk& walk, int depth) : walk_(walk), depth_(depth) {}

  void print_text(const Folder& top) const {
    each(top, [this](const Folder& folder, int level) {
      const uint32_t entries = walk_.entries_of(folder).size;
      fmt::print("{:{}}{}{}\n", "", level * 2, shown(walk_.name_of(folder)),
                 entries == 0 ? "" : fmt::format("  ({})", text::counted(entries, "entry")));
    });
  }

  // Walks once without printing, so that an error is known before the first byte of the answer.
  // Returns false when there are more than kMostJsonLevels levels.
  [[nodiscard]] bool fits_json(const Folder& top) const {
    bool fits = true;
    each(top, [&](const Folder& folder, int level) {
      static_cast<void>(walk_.name_of(folder));
      static_cast<void>(walk_.entries_of(folder));
      fits = fits && level <= kMostJsonLevels;
    });
    return fits;
  }

  // The document has members before those of the top folder, and behind the tree.
  void print_json(const Folder& top, const Json& before, const Json& behind) const {
    TreeOutput output(depth_);
    each(top, [&](const Folder& folder, int level) {
      Json members = level == 0 ? before : Json();
      members.update(members_of(folder));
      output.add(std::move(members), level);
    });
    output.end(behind);
  }

 private:
  [[nodiscard]] Json members_of(const Folder& folder) const {
    Json json;
    set_bytes(json, "name", walk_.name_of(folder));
    json["entries"] = walk_.entries_of(folder).size;
    return json;
  }

  struct Place {
    Folder folder;
    int level;
  };

  template <typename Visit>
  void each(const Folder& top, Visit visit) const {
    std::vector<Place> to_come{{top, 0}};
    // A damaged list may name a folder again and again.
    for (uint64_t seen = 0; !to_come.empty(); ++seen) {
      if (seen > walk_.folders()) throw mapcheck::Broken("child lists overlap");
      const auto [folder, level] = to_come.back();
      to_come.pop_back();
      visit(folder, level);
      if (level == depth_) continue;
      const auto children = walk_.children_of(folder);
      if (children.size > walk_.folders()) throw mapcheck::Broken("child lists overlap");
      for (uint32_t left = children.size; left > 0; --left) {
        to_come.push_back({walk_.child(folder, children, left - 1), level + 1});
      }
    }
  }

  const mapcheck::Walk& walk_;
  int depth_;
};

// The way to a page of the folders in one.
struct PageWish {
  bool is_wanted = false;
  std::optional<std::string> after;
  uint32_t limit = 200;
};

struct TreeWish {
  std::string path;
  int depth = 2;
  PageWish page;
};

Json json_of_child(const mapcheck::Walk& walk, const mapbrowse::Child& child) {
  const Folder folder = walk.at(child.offset);
  const uint32_t entries = walk.entries_of(folder).size;
  Json json;
  set_bytes(json, "name", walk.name_of(folder));
  json["entries"] = entries;
  json["inherited"] = entries == 0;
  json["child_count"] = walk.children_of(folder).size;
  return json;
}

void print_child(const Json& child) {
  const auto entries = child["entries"].get<uint32_t>();
  const auto children = child["child_count"].get<uint32_t>();
  fmt::print("{}  ({}{})\n", shown(child["name"].get<std::string>()),
             entries == 0 ? "inherits" : text::counted(entries, "entry"),
             children == 0 ? "" : ", " + text::counted(children, "folder"));
}

int children(const Options& options, const TreeWish& wish, const Image& image,
             const mapcheck::Walk& walk, const Folder& top) {
  const auto page = mapbrowse::page_of(walk, top, wish.page.after, wish.page.limit);
  const uint32_t entries = walk.entries_of(top).size;
  Json json = document("map-tree");
  set_bytes(json, "path", wish.path);
  set_bytes(json, "name", walk.name_of(top));
  json["entries"] = entries;
  json["inherited"] = entries == 0 && top.offset != 0;
  json["child_count"] = page.total;
  set_map(json, image, walk);
  json["children"] = Json::array();
  for (const mapbrowse::Child& child : page.children) {
    json["children"].push_back(json_of_child(walk, child));
  }
  json["more"] = page.more;
  if (options.json) {
    print(json);
    return kYes;
  }
  for (const Json& child : json["children"]) print_child(child);
  if (page.more) {
    fmt::print("{} in all; more follow behind --after \"{}\"\n",
               text::counted(page.total, "folder"), shown(page.children.back().name));
  }
  return kYes;
}

int tree(const Options& options, const TreeWish& wish, const Image& image,
         const mapcheck::Walk& walk) {
  const auto found = walk.find(explain::share_path(wish.path, TAVRIX_TREE));
  if (!found.exact) {
    complain_as(code::kNotInMap, "{}: not in the map", wish.path);
    return kNo;
  }
  if (wish.page.is_wanted) return children(options, wish, image, walk, found.folder);
  const Tree tree(walk, wish.depth);
  if (options.json) {
    if (!tree.fits_json(found.folder)) {
      complain("{}: more than {} levels below it; use a smaller --depth, or leave out --json",
               wish.path, kMostJsonLevels);
      return kFailure;
    }
    Json before = document("map-tree");
    set_bytes(before, "path", wish.path);
    Json behind;
    set_map(behind, image, walk);
    tree.print_json(found.folder, before, behind);
  } else {
    tree.print_text(found.folder);
  }
  return kYes;
}

}  // namespace

void add_map_inspect_commands(CLI::App& map, Options& options, Action& action) {
  static std::string path, file, after;
  static TreeWish wish;
  CLI::App* info_command = map.add_subcommand("info", "The map's header and its tables");
  info_command->add_option("--file", file, "look at a local copy instead of the current table")
      ->type_name("FILE");
  info_command->callback([&] {
    action = [&options] {
      return look("the look into the map", file, [&](const Image& image, const auto& walk) {
        return info(options, file, image, walk);
      });
    };
  });

  CLI::App* tree_command = map.add_subcommand("tree", "The folders of the map");
  tree_command->add_option("PATH", wish.path, "where to begin, relative to the share")
      ->default_str("/");
  auto* depth = tree_command->add_option("--depth", wish.depth, "levels below it")
                    ->check(CLI::Range(0, 10000))
                    ->capture_default_str();
  auto* page = tree_command->add_flag(
      "--children", wish.page.is_wanted,
      "the folders in it, by name, with how many are in each and whether it has own entries");
  auto* behind =
      tree_command->add_option("--after", after, "only those behind this name")->type_name("NAME");
  tree_command->add_option("--limit", wish.page.limit, "folders of a page")
      ->check(CLI::Range(1U, 100000U))
      ->capture_default_str()
      ->needs(page);
  behind->needs(page);
  page->excludes(depth);
  tree_command->add_option("--file", file, "look at a local copy instead of the current table")
      ->type_name("FILE");
  tree_command->callback([&, behind] {
    if (behind->count() > 0) wish.page.after = after;
    if (wish.path.empty()) wish.path = "/";
    action = [&options] {
      return look("the walk through the map", file, [&](const Image& image, const auto& walk) {
        return tree(options, wish, image, walk);
      });
    };
  });

  CLI::App* acl_command = map.add_subcommand("acl", "The entries that govern a path");
  acl_command->add_option("PATH", path, "relative to the share, as in Shared/Team")->required();
  acl_command->add_option("--file", file, "look at a local copy instead of the current table")
      ->type_name("FILE");
  acl_command->callback([&] {
    action = [&options] {
      return look("the look into the map", file, [&](const Image& image, const auto& walk) {
        return acl(options, path, image, walk);
      });
    };
  });

  cli::add_examples(*info_command,
                    {{"tavrixctl map info", "the map in force, and its tables"},
                     {"tavrixctl map info --file /etc/tavrix/.permbe_map", "the local copy"},
                     {"tavrixctl --json map info", "the same, for a program"}});
  cli::add_examples(
      *tree_command,
      {{"tavrixctl map tree", "the topmost folders"},
       {"tavrixctl map tree Shared --depth 1", "the folders in Shared"},
       {"tavrixctl map tree Shared --children --after M --limit 50", "fifty of them, behind M"},
       {"tavrixctl --json map tree Shared", "the same, for a program"}});
  cli::add_examples(*acl_command,
                    {{"tavrixctl map acl Shared/Team", "who may do what in a folder"},
                     {"tavrixctl --json map acl Shared/Team", "the same, for a program"}});
}

}  // namespace tavrix::ctl
