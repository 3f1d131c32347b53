// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/ctl/map_diff_output.hpp"

#include <iterator>

#include "tools/ctl/output.hpp"
#include "tools/ctl/trustee_names.hpp"
#include "tools/text/counted.hpp"

namespace tavrix::ctl {
namespace {

using mapdiff::EntryChange;
using mapdiff::has_entries;
using mapdiff::path_of;

explain::Trustee trustee_of(const EntryChange& change) {
  return {change.type == IDTYPE_UID, change.id};
}

std::vector<EntryChange> changes_of(const Compared& maps, const mapdiff::FolderPair& pair) {
  std::vector<mapdiff::Entry> old_entries, new_entries;
  mapdiff::read_entries(maps.old_map, pair.old_folder, old_entries);
  mapdiff::read_entries(maps.new_map, pair.new_folder, new_entries);
  return changed_entries(old_entries, new_entries);
}

// --- for people --------------------------------------------------------------------------------

std::string text_of(const EntryChange& change) {
  const std::string& whom = label_of(trustee_of(change));
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

// --- for programs ------------------------------------------------------------------------------

Json json_of(const Image& image, const ImageView& map) {
  Json json;
  set_bytes(json, "image", image.origin());
  json.update(json_of_header(map.header()));
  return json;
}

void add_mask(const char* side, uint32_t mask, std::string& text) {
  fmt::format_to(std::back_inserter(text), ",\"{0}_mask\":{1},\"{0}_rights\":\"{2}\"", side, mask,
                 rights(mask));
}

std::string json_text_of(const EntryChange& change) {
  std::string text = ctl::json_text_of(trustee_of(change));
  text.pop_back();  // the bracket
  if (change.old_mask) add_mask("old", *change.old_mask, text);
  if (change.new_mask) add_mask("new", *change.new_mask, text);
  return text += '}';
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

std::string json_text_of(const Compared& maps, const mapdiff::FolderPair& pair) {
  Json json;
  set_bytes(json, "path", path_of(maps.new_map, pair.new_folder));
  json["inherited_before"] = !has_entries(maps.old_map, pair.old_folder);
  json["inherits_now"] = !has_entries(maps.new_map, pair.new_folder);
  std::string text = json::text_of(json);
  text.pop_back();  // the bracket
  text += ",\"entries\":[";
  const char* before = "";
  for (const EntryChange& change : changes_of(maps, pair)) {
    text.append(before).append(json_text_of(change));
    before = ",";
  }
  return text += "]}";
}

// A key of the document with a list, an item a line.
template <typename Items, typename Convert>
void print_list(const char* key, const Items& items, Convert convert) {
  fmt::print(",\n  \"{}\": [", key);
  const char* before = "\n    ";
  for (const auto& item : items) {
    fmt::print("{}{}", before, convert(item));
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

bool print_difference_json(const Compared& maps, const mapdiff::Difference& difference,
                           const RightsSource* rights) {
  Json head = document("map-diff");
  head["old"] = json_of(maps.old_image, maps.old_map);
  head["new"] = json_of(maps.new_image, maps.new_map);
  head["same"] = difference.is_empty();
  std::string text = json::text_of(head, 2);
  text.resize(text.rfind('\n'));  // before the last bracket
  fmt::print("{}", text);
  const auto subtree_in = [](const ImageView& map) {
    return [&map](const mapdiff::Subtree& subtree) { return json::text_of(json_of(map, subtree)); };
  };
  const auto move = [&maps](const mapdiff::Move& found) {
    return json::text_of(json_of(maps, found));
  };
  const auto changed = [&maps](const mapdiff::FolderPair& pair) {
    return json_text_of(maps, pair);
  };
  print_list("removed", difference.removed, subtree_in(maps.old_map));
  print_list("added", difference.added, subtree_in(maps.new_map));
  print_list("moved", difference.moved, move);
  print_list("changed", difference.changed, changed);
  bool is_any = false;
  if (rights != nullptr) {
    fmt::print(",\n  \"effective\": [");
    is_any = print_rights_items(*rights);
    fmt::print("{}]", is_any ? "\n  " : "");
  }
  fmt::print("\n}}\n");
  return is_any;
}

}  // namespace tavrix::ctl
