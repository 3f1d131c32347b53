// SPDX-License-Identifier: LGPL-3.0-or-later
// The walk through two maps at once.
#pragma once

#include <string_view>
#include <vector>

#include "tools/mapdiff/difference.hpp"

namespace tavrix::mapdiff {

// Compares a folder and all that is below it with another. Keeps its working memory for the next
// comparison.
class Comparison {
 public:
  Comparison(const ImageView& old_map, const ImageView& new_map)
      : old_map_(old_map), new_map_(new_map) {}

  // The tops of removed and added subtrees, without their counts, and the folders with changed
  // entries, in the order of the maps. The names of the two folders themselves are not compared.
  [[nodiscard]] Difference run(uint32_t old_folder, uint32_t new_folder,
                               const mapcheck::Progress& progress = {});
  // Stops at the first difference.
  [[nodiscard]] bool is_same(uint32_t old_folder, uint32_t new_folder);

 private:
  struct Named {
    std::string_view name;
    uint32_t slot;
  };
  bool has_same_entries(FolderPair pair);
  void pair_children(FolderPair parents, Difference& found);
  void pair_by_name(const Children& olds, const Children& news, uint32_t first, Difference& found);
  [[nodiscard]] bool have_same_name(uint32_t old_folder, uint32_t new_folder) const;
  static void sort_names(const ImageView& map, const Children& children, uint32_t first,
                         std::vector<Named>& names);

  const ImageView& old_map_;
  const ImageView& new_map_;
  std::vector<FolderPair> to_come_;  // the next one is the last
  std::vector<Entry> old_entries_, new_entries_;
  std::vector<Named> old_names_, new_names_;
  std::vector<uint32_t> partner_;  // of each child of the new folder; kNone: it has none
};

}  // namespace tavrix::mapdiff
