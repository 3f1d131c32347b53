// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/ctl/map_diff_output.hpp"

#include <map>
#include <utility>

#include "tools/ctl/output.hpp"
#include "tools/explain/words.hpp"
#include "tools/text/counted.hpp"

namespace tavrix::ctl {
namespace {

using mapdiff::EntryChange;
using mapdiff::has_entries;
using mapdiff::path_of;

bool is_user(uint32_t type) { return type == IDTYPE_UID; }

// Looks a name up once: a difference may name the same group a million times.
const std::string& name_of(uint32_t type, uint32_t id) {
  static std::map<std::pair<uint32_t, uint32_t>, std::string> known;
  const auto [place, is_new] = known.try_emplace({type, id});
  // The reserved groups of the group list map need no name on the machine.
  if (is_new) place->second = explain::name_of({is_user(type), id});
  return place->second;
}

std::vector<EntryChange> changes_of(const Compared& maps, const mapdiff::FolderPair& pair) {
  std::vector<mapdiff::Entry> old_entries, new_entries;
  mapdiff::read_entries(maps.old_map, pair.old_folder, old_entries);
  mapdiff::read_entries(maps.new_map, pair.new_folder, new_entries);
  return changed_entries(old_entries, new_entries);
}

// --- for people --------------------------------------------------------------------------------

std::string whom_of(uint32_t type, uint32_t id) {
  const std::string& name = name_of(type, id);
  return fmt::format("{} {}", is_user(type) ? "user" : "group",
                     name.empty() ? std::to_string(id) : shown(name));
}

std::string text_of(const EntryChange& change) {
  const std::string whom = whom_of(change.type, change.id);
  if (!change.old_mask) return fmt::format("+ {}: {}", whom, rights(*change.new_mask));
  if (!change.new_mask) return fmt::format("- {}: {}", whom, rights(*change.old_mask));
  return fmt::format("  {}: {} -> {}", whom, rights(*change.old_mask), rights(*change.new_mask));
}

// A folder without entries has those of the nearest folder above that has some.
const char* turn_of(const Compared& maps, const mapdiff::FolderPair& pair) {
  if (!has_entries(maps.new_map, pair.new_folder)) return "  (inherits now)";
  if (!has_entries(maps.old_map, pair.old_folder)) return "  (inherited before)";
  return "";
}

void print_subtrees(const char* what, const ImageView& map,
                    const std::vector<mapdiff::Subtree>& subtrees) {
  for (const mapdiff::Subtree& subtree : subtrees) {
    fmt::print("{:<7}  {}{}\n", what, shown(path_of(map, subtree.folder)),
               subtree.folders == 1
                   ? ""
                   : fmt::format("  ({})", text::counted(subtree.folders, "folder")));
  }
}

template <typename List>
uint64_t folders_in(const List& list) {
  uint64_t folders = 0;
  for (const auto& item : list) folders += item.folders;
  return folders;
}

void print_sum(const mapdiff::Difference& difference) {
  if (difference.is_empty()) {
    fmt::print("the same folders with the same entries\n");
    return;
  }
  fmt::print("{} removed, {} added, {} moved, {} with other entries\n",
             text::counted(folders_in(difference.removed), "folder"), folders_in(difference.added),
             folders_in(difference.moved), difference.changed.size());
}

std::string text_of(const mapdiff::RightsChange& change) {
  std::vector<std::string> whom;
  for (const explain::Trustee& trustee : *change.whom) {
    const uint32_t type = trustee.is_user ? IDTYPE_UID : IDTYPE_GID;
    whom.push_back(whom_of(type, trustee.id));
  }
  std::vector<std::string> what;
  const auto tell = [&](uint32_t mask, const char* for_one, const char* for_more) {
    if (mask == 0) return;
    what.push_back(fmt::format("{} {}", text::verb(whom.size(), for_one, for_more),
                               explain::rights_text(mask)));
  };
  tell(change.gained, "gains", "gain");
  tell(change.lost, "loses", "lose");
  const bool is_below = change.reach == mapdiff::Reach::kBelow;
  const bool is_both = change.reach == mapdiff::Reach::kFolderAndBelow;
  return fmt::format("{}{}{}: {} {}", is_below ? "below " : "", shown(change.path),
                     is_both ? " and below" : "", explain::joined(whom), fmt::join(what, "; "));
}

// --- for programs ------------------------------------------------------------------------------

std::string dumped(const Json& json, int indent = -1) {
  return json.dump(indent, ' ', false, Json::error_handler_t::replace);
}

Json json_of(const Image& image, const ImageView& map) {
  Json json;
  set_bytes(json, "image", image.origin());
  json.update(json_of_header(map.header()));
  return json;
}

Json json_of(const EntryChange& change) {
  Json json;
  json["type"] = is_user(change.type) ? "user" : "group";
  json["id"] = change.id;
  if (const std::string& name = name_of(change.type, change.id); !name.empty()) {
    set_bytes(json, "name", name);
  }
  if (change.old_mask) {
    json["old_mask"] = *change.old_mask;
    json["old_rights"] = rights(*change.old_mask);
  }
  if (change.new_mask) {
    json["new_mask"] = *change.new_mask;
    json["new_rights"] = rights(*change.new_mask);
  }
  return json;
}

Json json_of(const mapdiff::RightsChange& change) {
  static constexpr const char* kReaches[] = {"folder", "below", "folder and below"};
  Json json;
  set_bytes(json, "path", change.path);
  json["reach"] = kReaches[static_cast<int>(change.reach)];
  json["whom"] = Json::array();
  for (const explain::Trustee& trustee : *change.whom) {
    const uint32_t type = trustee.is_user ? IDTYPE_UID : IDTYPE_GID;
    json["whom"].push_back(json_of(EntryChange{type, trustee.id, {}, {}}));
  }
  json["gained"] = change.gained;
  json["gained_rights"] = explain::rights_of(change.gained);
  json["lost"] = change.lost;
  json["lost_rights"] = explain::rights_of(change.lost);
  return json;
}

Json json_of(const ImageView& map, const mapdiff::Subtree& subtree) {
  Json json;
  set_bytes(json, "path", path_of(map, subtree.folder));
  json["folders"] = subtree.folders;
  return json;
}

Json json_of(const Compared& maps, const mapdiff::Move& move) {
  Json json;
  set_bytes(json, "from", path_of(maps.old_map, move.old_folder));
  set_bytes(json, "to", path_of(maps.new_map, move.new_folder));
  json["folders"] = move.folders;
  return json;
}

Json json_of(const Compared& maps, const mapdiff::FolderPair& pair) {
  Json json;
  set_bytes(json, "path", path_of(maps.new_map, pair.new_folder));
  json["inherited_before"] = !has_entries(maps.old_map, pair.old_folder);
  json["inherits_now"] = !has_entries(maps.new_map, pair.new_folder);
  json["entries"] = Json::array();
  for (const EntryChange& change : changes_of(maps, pair))
    json["entries"].push_back(json_of(change));
  return json;
}

// A key of the document with a list, an item a line.
template <typename Items, typename Convert>
void print_list(const char* key, const Items& items, Convert convert) {
  fmt::print(",\n  \"{}\": [", key);
  const char* before = "\n    ";
  for (const auto& item : items) {
    fmt::print("{}{}", before, dumped(convert(item)));
    before = ",\n    ";
  }
  fmt::print("{}]", items.empty() ? "" : "\n  ");
}

}  // namespace

void print_difference(const Compared& maps, const mapdiff::Difference& difference) {
  print_subtrees("removed", maps.old_map, difference.removed);
  print_subtrees("added", maps.new_map, difference.added);
  for (const mapdiff::Move& move : difference.moved) {
    fmt::print(
        "moved    {} -> {}{}\n", shown(path_of(maps.old_map, move.old_folder)),
        shown(path_of(maps.new_map, move.new_folder)),
        move.folders == 1 ? "" : fmt::format("  ({})", text::counted(move.folders, "folder")));
  }
  for (const mapdiff::FolderPair& pair : difference.changed) {
    fmt::print("changed  {}{}\n", shown(path_of(maps.new_map, pair.new_folder)),
               turn_of(maps, pair));
    for (const EntryChange& change : changes_of(maps, pair)) {
      fmt::print("           {}\n", text_of(change));
    }
  }
  print_sum(difference);
}

void print_rights(const std::vector<mapdiff::RightsChange>& changes) {
  if (changes.empty()) fmt::print("nobody gains or loses a right\n");
  for (const mapdiff::RightsChange& change : changes) fmt::print("{}\n", text_of(change));
}

void print_difference_json(const Compared& maps, const mapdiff::Difference& difference,
                           const std::vector<mapdiff::RightsChange>* rights) {
  Json head = document("map-diff");
  head["old"] = json_of(maps.old_image, maps.old_map);
  head["new"] = json_of(maps.new_image, maps.new_map);
  head["same"] = difference.is_empty();
  std::string text = dumped(head, 2);
  text.resize(text.rfind('\n'));  // before the last bracket
  fmt::print("{}", text);
  const auto subtree_in = [](const ImageView& map) {
    return [&map](const mapdiff::Subtree& subtree) { return json_of(map, subtree); };
  };
  const auto item = [&maps](const auto& found) { return json_of(maps, found); };
  print_list("removed", difference.removed, subtree_in(maps.old_map));
  print_list("added", difference.added, subtree_in(maps.new_map));
  print_list("moved", difference.moved, item);
  print_list("changed", difference.changed, item);
  if (rights != nullptr) {
    print_list("effective", *rights,
               [](const mapdiff::RightsChange& change) { return json_of(change); });
  }
  fmt::print("\n}}\n");
}

}  // namespace tavrix::ctl
