// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/mapdiff/places.hpp"

#include <strings.h>
#include <algorithm>

namespace tavrix::mapdiff {
namespace {

void add_subtree(const ImageView& map, uint32_t top, std::vector<std::string>& places) {
  std::vector<uint32_t> to_come{top};
  while (!to_come.empty()) {
    const uint32_t folder = to_come.back();
    to_come.pop_back();
    if (has_entries(map, folder)) places.push_back(path_of(map, folder));
    const Children children(map, folder);
    for (uint32_t slot = 0; slot < children.size(); ++slot) to_come.push_back(children[slot]);
  }
}

}  // namespace

std::vector<std::string> places_of(const ImageView& old_map, const ImageView& new_map,
                                   const Difference& difference) {
  std::vector<std::string> places;
  for (const FolderPair& pair : difference.changed) {
    places.push_back(path_of(new_map, pair.new_folder));
  }
  for (const Subtree& subtree : difference.removed) add_subtree(old_map, subtree.folder, places);
  for (const Subtree& subtree : difference.added) add_subtree(new_map, subtree.folder, places);
  for (const Move& move : difference.moved) {
    add_subtree(old_map, move.old_folder, places);
    add_subtree(new_map, move.new_folder, places);
  }
  // A lookup takes names that differ in case only for the same.
  std::sort(places.begin(), places.end(), [](const std::string& a, const std::string& b) {
    const int order = strcasecmp(a.c_str(), b.c_str());
    return order != 0 ? order < 0 : a < b;
  });
  const auto end =
      std::unique(places.begin(), places.end(), [](const std::string& a, const std::string& b) {
        return strcasecmp(a.c_str(), b.c_str()) == 0;
      });
  places.erase(end, places.end());
  return places;
}

}  // namespace tavrix::mapdiff
