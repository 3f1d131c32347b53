// SPDX-License-Identifier: LGPL-3.0-or-later
// tavrixctl map info, map tree and map acl: the content of an image.

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <optional>
#include <utility>
#include <vector>

#include "perm_utils.h"
#include "permissions/map/image.hpp"
#include "tools/cli/help.hpp"
#include "tools/ctl/commands.hpp"
#include "tools/ctl/map_view.hpp"
#include "tools/ctl/output.hpp"
#include "tools/ctl/survive.hpp"
#include "tools/explain/share_path.hpp"
#include "tools/text/counted.hpp"

namespace tavrix::ctl {
namespace {

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

int info(const Options& options, const std::string& path) {
  const MapState state = map_state();
  const auto image = Image::sound(path);
  if (!image) return kFailure;
  const auto& header = *reinterpret_cast<const tavrix_be_header*>(image->bytes().data());
  Json json = document("map-info");
  json["image"] = image->origin();
  json["bytes"] = image->bytes().size();
  json["map"] = json_of_header(header);
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
  fmt::print("{}: {} in {}\n", image->origin(), human_bytes(image->bytes().size()),
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

struct Acl {
  tavrix_acl_t* acl = nullptr;
  Acl(const std::byte* map, const std::string& path) {
    get_tavrix_acl(const_cast<std::byte*>(map), path.empty() ? "/" : path.c_str(), &acl);
  }
  ~Acl() {
    free_ACL(acl);
    std::free(acl);
  }
  Acl(const Acl&) = delete;
  Acl& operator=(const Acl&) = delete;

  void each(const std::function<void(const tavrix_ace_s&)>& visit) const {
    for (auto* elem = acl->ace_list_head.first_elem; elem != nullptr; elem = elem->next_elem) {
      visit(*reinterpret_cast<const tavrix_ace_s*>(elem));
    }
  }
};

// The deepest folder of the map on a path. It answers for the path, and `exact` tells whether it is
// the path itself.
struct Found {
  uint32_t offset = 0;
  bool exact = false;
};
Found find(const std::byte* map, const std::string& path) {
  path_array* parts = nullptr;
  get_path_elem_smb4(path.c_str(), static_cast<uint32_t>(path.size() + 1), &parts);
  Found found;
  found.exact =
      find_fselem_fromname(const_cast<std::byte*>(map), parts, &found.offset) == SHM_MEMBE_OK;
  cleanup_path_array_smb4(&parts);
  const bool is_root = path.find_first_not_of('/') == std::string::npos;
  return {found.offset, found.exact || is_root};
}

std::string path_of(const ImageView& view, uint32_t offset) {
  std::string path;
  while (offset != 0) {
    const fs_elem_s& folder = view.fselem(offset);
    path.insert(0, "/" + std::string(ImageView::text_of(view.name_of(folder))));
    offset = folder.parent_offset;
  }
  return path.empty() ? "/" : path;
}

int acl(const Options& options, const std::string& given, const std::string& file) {
  const auto image = Image::sound(file);
  if (!image) return kFailure;
  const std::byte* map = image->bytes().data();
  const std::string path = "/" + explain::share_path(given, TAVRIX_TREE);
  const Found found = find(map, path);
  const ImageView view(map);
  // Entries are inherited from the nearest folder above that has some.
  uint32_t source = found.offset;
  while (source != 0 && view.acl_of(view.fselem(source)).num_aces == 0) {
    source = view.fselem(source).parent_offset;
  }
  const Acl governing(map, path);
  const bool is_inherited = !found.exact || source != found.offset;
  Json json = document("map-acl");
  set_bytes(json, "path", given);
  json["in_map"] = found.exact;
  set_bytes(json, "folder", path_of(view, found.offset));
  json["inherited"] = is_inherited;
  set_bytes(json, "from", path_of(view, source));
  json["entries"] = Json::array();
  if (!options.json) {
    if (!found.exact) {
      fmt::print("{}: not in the map; {} stands in for it\n", shown(given),
                 shown(path_of(view, found.offset)));
    }
    fmt::print("{}: {} {}\n", shown(given), is_inherited ? "inherited from" : "explicit at",
               shown(path_of(view, source)));
  }
  governing.each([&](const tavrix_ace_s& ace) {
    const bool is_user = ace.trustee_type == ACE_TYPE_USER;
    const std::string name = is_user ? user_name(ace.trustee.uid) : group_name(ace.trustee.gid);
    if (!options.json) {
      fmt::print("  {:<5} {:<10} {:<20} {:>3}  {}\n", is_user ? "user" : "group", ace.trustee.uid,
                 name.empty() ? "-" : name, ace.perm_mask, rights(ace.perm_mask));
      return;
    }
    Json entry;
    entry["type"] = is_user ? "user" : "group";
    entry["id"] = ace.trustee.uid;
    if (!name.empty()) set_bytes(entry, "name", name);
    entry["mask"] = ace.perm_mask;
    entry["rights"] = rights(ace.perm_mask);
    json["entries"].push_back(std::move(entry));
  });
  if (options.json) print(json);
  return kYes;
}

// Readers of JSON refuse deeper documents, and printing one would need a deep stack.
constexpr int kMostJsonLevels = 1000;

// The folders below one, the first child first. The way down is kept on the heap, because a map may
// be deeper than the stack allows.
class Tree {
 public:
  Tree(const ImageView& view, int depth) : view_(view), depth_(depth) {}

  void print_text(uint32_t top) const {
    walk(top, [this](uint32_t offset, int level) {
      const fs_elem_s& folder = view_.fselem(offset);
      const uint32_t entries = view_.acl_of(folder).num_aces;
      fmt::print("{:{}}{}{}\n", "", level * 2, shown(ImageView::text_of(view_.name_of(folder))),
                 entries == 0 ? "" : fmt::format("  ({})", text::counted(entries, "entry")));
    });
  }

  // The tree as JSON; nothing when it has more than kMostJsonLevels levels.
  [[nodiscard]] std::optional<Json> json(uint32_t top) const {
    // A folder is added to its parent when everything below it is known.
    std::vector<Json> open;
    const auto close_down_to = [&open](std::size_t levels) {
      while (open.size() > levels) {
        Json done = std::move(open.back());
        open.pop_back();
        open.back()["children"].push_back(std::move(done));
      }
    };
    bool is_too_deep = false;
    walk(top, [&](uint32_t offset, int level) {
      if (is_too_deep = is_too_deep || level > kMostJsonLevels; is_too_deep) return;
      close_down_to(static_cast<std::size_t>(std::max(level, 1)));
      const fs_elem_s& folder = view_.fselem(offset);
      Json json;
      set_bytes(json, "name", ImageView::text_of(view_.name_of(folder)));
      json["entries"] = uint32_t{view_.acl_of(folder).num_aces};
      if (level < depth_) json["children"] = Json::array();
      open.push_back(std::move(json));
    });
    close_down_to(1);
    if (is_too_deep) return std::nullopt;
    return std::move(open.front());
  }

 private:
  struct Place {
    uint32_t offset;
    int level;
  };

  template <typename Visit>
  void walk(uint32_t top, Visit visit) const {
    std::vector<Place> to_come{{top, 0}};
    while (!to_come.empty()) {
      const auto [offset, level] = to_come.back();
      to_come.pop_back();
      visit(offset, level);
      const fs_elem_s& folder = view_.fselem(offset);
      if (level == depth_ || (folder.flags & FSELEM_FLAG_NO_CHILD_LIST) != 0) continue;
      const child_list_s& list = view_.children_of(folder);
      for (uint32_t slot = list.next_index; slot > 0; --slot) {
        to_come.push_back({ImageView::child_at(list, slot - 1), level + 1});
      }
    }
  }

  const ImageView& view_;
  int depth_;
};

int tree(const Options& options, const std::string& path, int depth, const std::string& file) {
  const auto image = Image::sound(file);
  if (!image) return kFailure;
  const Found found = find(image->bytes().data(), "/" + explain::share_path(path, TAVRIX_TREE));
  if (!found.exact) {
    complain("{}: not in the map", path);
    return kNo;
  }
  const ImageView view(image->bytes().data());
  const Tree tree(view, depth);
  if (options.json) {
    const auto top = tree.json(found.offset);
    if (!top) {
      complain("{}: more than {} levels below it; use a smaller --depth, or leave out --json", path,
               kMostJsonLevels);
      return kFailure;
    }
    Json json = document("map-tree");
    set_bytes(json, "path", path);
    json.update(*top);
    print(json);
  } else {
    tree.print_text(found.offset);
  }
  return kYes;
}

}  // namespace

void add_map_inspect_commands(CLI::App& map, Options& options, Action& action) {
  static std::string path, file;
  static int depth = 2;
  CLI::App* info_command = map.add_subcommand("info", "The map's header and its tables");
  info_command->add_option("--file", file, "look at a local copy instead of the current table")
      ->type_name("FILE");
  info_command->callback([&] { action = [&options] { return info(options, file); }; });

  CLI::App* tree_command = map.add_subcommand("tree", "The folders of the map");
  tree_command->add_option("PATH", path, "where to begin, relative to the share")->default_str("/");
  tree_command->add_option("--depth", depth, "levels below it")
      ->check(CLI::Range(0, 10000))
      ->capture_default_str();
  tree_command->add_option("--file", file, "look at a local copy instead of the current table")
      ->type_name("FILE");
  tree_command->callback([&] {
    action = [&options] {
      return survive("the walk through the map",
                     [&options] { return tree(options, path.empty() ? "/" : path, depth, file); });
    };
  });

  CLI::App* acl_command = map.add_subcommand("acl", "The entries that govern a path");
  acl_command->add_option("PATH", path, "relative to the share, as in Shared/Team")->required();
  acl_command->add_option("--file", file, "look at a local copy instead of the current table")
      ->type_name("FILE");
  acl_command->callback([&] {
    action = [&options] {
      return survive("the look into the map", [&options] { return acl(options, path, file); });
    };
  });

  cli::add_examples(*info_command,
                    {{"tavrixctl map info", "the map in force, and its tables"},
                     {"tavrixctl map info --file /etc/tavrix/.permbe_map", "the local copy"},
                     {"tavrixctl --json map info", "the same, for a program"}});
  cli::add_examples(*tree_command,
                    {{"tavrixctl map tree", "the topmost folders"},
                     {"tavrixctl map tree Shared --depth 1", "the folders in Shared"},
                     {"tavrixctl --json map tree Shared", "the same, for a program"}});
  cli::add_examples(*acl_command,
                    {{"tavrixctl map acl Shared/Team", "who may do what in a folder"},
                     {"tavrixctl --json map acl Shared/Team", "the same, for a program"}});
}

}  // namespace tavrix::ctl
