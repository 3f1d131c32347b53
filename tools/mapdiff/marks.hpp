// SPDX-License-Identifier: LGPL-3.0-or-later
// The folders of a map from which on rights may differ, and the way to them.
#pragma once

#include <vector>

#include "tools/mapdiff/difference.hpp"

namespace tavrix::mapdiff {

// A bit for each folder of a sound image.
class Marks {
 public:
  explicit Marks(const ImageView& map);

  void add(uint32_t folder);
  // A folder without entries that came or went changes nothing by itself.
  void add_those_with_entries(uint32_t top);
  [[nodiscard]] bool has(uint32_t folder) const { return is_marked_[index_of(folder)]; }
  // The folder is marked, or one below it is.
  [[nodiscard]] bool lead_through(uint32_t folder) const { return is_on_way_[index_of(folder)]; }

 private:
  static std::size_t index_of(uint32_t folder) { return folder / sizeof(fs_elem_s); }

  const ImageView& map_;
  std::vector<bool> is_marked_, is_on_way_;
};

}  // namespace tavrix::mapdiff
